#include "ui/AboutView.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QPointer>
#include <QVBoxLayout>

#include "support/BuildInfo.h"
#include "ui/AppIconView.h"
#include "ui/Hairline.h"
#include "ui/PlainButton.h"
#include "ui/StatisticsCard.h"
#include "ui/Style.h"
#include "ui/TextLabel.h"
#include "ui/ViewRules.h"

namespace quellix::ui {
namespace {

constexpr int kTopSpace = 26;
constexpr int kIconSide = 84;
constexpr int kNameSize = 20;
constexpr int kNameTop = 8;
constexpr int kVersionSize = 11;
constexpr int kVersionTop = 2;
constexpr int kCardTop = 18;
constexpr int kCardSide = 28;
constexpr int kCardPadding = 14;
constexpr int kDividerHeight = 34;
constexpr int kStatSpacing = 2;
constexpr int kStatValueSize = 19;
constexpr int kStatLabelSize = 11;
constexpr int kBottomSpace = 16;
constexpr int kMakerSpacing = 6;
constexpr int kMakerSize = 12;
constexpr int kMakerBottom = 24;

QString translated(const char* text) {
  return QCoreApplication::translate("AboutView", text);
}

TextLabel* centred(const QString& text, const QFont& font, LabelLevel level) {
  auto* label = new TextLabel(text, font, level);
  label->setAlignment(Qt::AlignCenter);
  label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  return label;
}

QFont statValueFont() {
  QFont font = Style::font(kStatValueSize, QFont::Bold);
  // Digits of equal width where the font offers a choice.
  font.setStyleHint(QFont::SansSerif, QFont::PreferMatch);
  return font;
}

QWidget* stat(TextLabel* value, TextLabel* label) {
  auto* widget = new QWidget;
  auto* stack = new QVBoxLayout(widget);
  stack->setContentsMargins(0, 0, 0, 0);
  stack->setSpacing(kStatSpacing);
  stack->addWidget(value);
  stack->addWidget(label);
  return widget;
}

}  // namespace

const QUrl& AboutView::websiteURL() {
  static const QUrl url(QStringLiteral("https://%1/apps?utm_source=quellix&utm_medium=about")
                            .arg(QString::fromLatin1(build::kWebHost)));
  return url;
}

QString AboutView::websiteDomain() {
  return QString::fromLatin1(build::kWebHost);
}

AboutView::AboutView(AppState& state, QWidget* parent)
    : AboutView(state, QString::fromLatin1(build::kVersion), parent) {}

AboutView::AboutView(AppState& state, std::optional<QString> shortVersion, QWidget* parent)
    : QWidget(parent), state_(state) {
  openUrl = [](const QUrl& url) { QDesktopServices::openUrl(url); };
  setFixedSize(kSize);

  auto* stack = new QVBoxLayout(this);
  stack->setContentsMargins(0, 0, 0, 0);
  stack->setSpacing(0);
  stack->addSpacerItem(new QSpacerItem(0, kTopSpace, QSizePolicy::Minimum, QSizePolicy::Expanding));

  icon_ = new AppIconView(kIconSide);
  icon_->setIcon({.themeName = build::kBundleIdentifier});
  stack->addWidget(icon_, 0, Qt::AlignHCenter);
  stack->addSpacing(kNameTop);
  stack->addWidget(
      centred(QStringLiteral("Quellix"), Style::font(kNameSize, QFont::Bold), LabelLevel::primary));
  stack->addSpacing(kVersionTop);
  version_ = centred(ViewRules::versionLine(shortVersion), Style::font(kVersionSize),
                     LabelLevel::tertiary);
  stack->addWidget(version_);
  stack->addSpacing(kCardTop);

  auto* card = new StatisticsCard;
  auto* row = new QHBoxLayout(card);
  row->setContentsMargins(0, kCardPadding, 0, kCardPadding);
  row->setSpacing(0);
  countValue_ = centred({}, statValueFont(), LabelLevel::primary);
  countLabel_ = centred({}, Style::font(kStatLabelSize), LabelLevel::secondary);
  quietValue_ = centred({}, statValueFont(), LabelLevel::primary);
  quietLabel_ = centred(translated(QT_TRANSLATE_NOOP("AboutView", "Ruhe verschafft")),
                        Style::font(kStatLabelSize), LabelLevel::secondary);
  auto* divider = new Hairline(Qt::Vertical);
  divider->setFixedHeight(kDividerHeight);
  row->addWidget(stat(countValue_, countLabel_), 1);
  row->addWidget(divider, 0, Qt::AlignVCenter);
  row->addWidget(stat(quietValue_, quietLabel_), 1);
  auto* cardRow = new QHBoxLayout;
  cardRow->setContentsMargins(kCardSide, 0, kCardSide, 0);
  cardRow->addWidget(card);
  stack->addLayout(cardRow);

  stack->addSpacerItem(
      new QSpacerItem(0, kBottomSpace, QSizePolicy::Minimum, QSizePolicy::Expanding));
  auto* maker = new QVBoxLayout;
  maker->setSpacing(kMakerSpacing);
  maker->addWidget(
      centred(translated(QT_TRANSLATE_NOOP("AboutView", "Ein kostenloses Tool von norvalin")),
              Style::font(kMakerSize), LabelLevel::secondary));
  link_ = new PlainButton;
  auto* linkText =
      new TextLabel(websiteDomain(), Style::font(kMakerSize, QFont::DemiBold), LabelLevel::primary);
  linkText->setColor(Style::linkColor(palette()));
  link_->addToLabel(linkText);
  link_->setAccessibleName(websiteDomain());
  link_->setTooltipText(websiteURL().toString());
  link_->onClick([this] { openUrl(websiteURL()); });
  maker->addWidget(link_, 0, Qt::AlignHCenter);
  stack->addLayout(maker);
  stack->addSpacing(kMakerBottom);

  render();
}

void AboutView::render() {
  withObservationTracking(
      [this] {
        const std::int64_t count = state_.muter().statsMuteCount().get();
        countValue_->setText(ViewRules::muteCountText(count));
        countLabel_->setText(ViewRules::muteCountLabel(count));
        quietValue_->setText(ViewRules::quietTimeText(state_.muter().statsTotalMutedSeconds()));
      },
      [self = QPointer<AboutView>(this)] {
        if (self) {
          self->state_.queue().post([self] {
            if (self) {
              self->render();
            }
          });
        }
      });
}

}  // namespace quellix::ui
