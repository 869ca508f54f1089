#include "ui/OnboardingView.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QPointer>
#include <QPushButton>
#include <QShortcut>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <memory>

#include "support/BuildInfo.h"
#include "ui/AppIconView.h"
#include "ui/PageDots.h"
#include "ui/PlainButton.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"

namespace quellix::ui {
namespace {

constexpr int kTopSpace = 28;
constexpr int kPageBottomSpace = 20;
constexpr int kDotsBottom = 18;
constexpr int kNavigationSide = 28;
constexpr int kNavigationBottom = 24;
constexpr int kPageSide = 32;
constexpr int kTitleSize = 24;
constexpr int kBodySize = 13;
constexpr qreal kBodyLineSpacing = 3;
constexpr int kWelcomeSpacing = 14;
constexpr int kWelcomeIcon = 96;
constexpr int kHowToSpacing = 18;
constexpr int kInstructionsSpacing = 16;
constexpr int kInstructionsSide = 8;
constexpr int kInstructionSpacing = 12;
constexpr int kInstructionSymbolSize = 17;
constexpr int kInstructionSymbolFrame = 26;
constexpr int kInstructionTextSpacing = 2;
constexpr int kInstructionTitleSize = 13;
constexpr int kInstructionTextSize = 12;
constexpr qreal kInstructionLineSpacing = 2;
constexpr int kInstructionTextWidth = OnboardingView::kSize.width() - 2 * kPageSide -
                                      2 * kInstructionsSide - kInstructionSymbolFrame -
                                      kInstructionSpacing;
constexpr int kHeroSymbolBottom = 6;
constexpr int kMediaSymbolSize = 40;
constexpr int kLaunchSymbolSize = 42;
constexpr int kPermissionTop = 10;
constexpr int kPermissionSpacing = 6;
constexpr int kBorderedButtonPadding = 8;
constexpr int kNoteSize = 11;
constexpr int kLaunchTop = 10;
constexpr int kMakerTop = 14;
constexpr int kMakerSize = 11;
constexpr int kBackSize = 12;
constexpr int kForwardHeight = 30;
constexpr int kForwardMinimumWidth = 96;
constexpr int kGrantedSpacing = 5;

QString translated(const char* text) {
  return QCoreApplication::translate("OnboardingView", text);
}

TextLabel* title(const QString& text) {
  auto* label = new TextLabel(text, Style::font(kTitleSize, QFont::Bold), LabelLevel::primary);
  label->setAlignment(Qt::AlignCenter);
  label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  return label;
}

TextLabel* body(const QString& text, int size, LabelLevel level, qreal lineSpacing) {
  auto* label = new TextLabel(text, Style::font(size), level);
  label->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
  label->setParagraph(false, lineSpacing);
  label->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  return label;
}

QVBoxLayout* pageStack(QWidget* page, int spacing) {
  auto* stack = new QVBoxLayout(page);
  stack->setContentsMargins(kPageSide, 0, kPageSide, 0);
  stack->setSpacing(spacing);
  return stack;
}

int heightOf(QWidget* page, int width) {
  return page->hasHeightForWidth() ? page->heightForWidth(width) : page->sizeHint().height();
}

}  // namespace

OnboardingView::OnboardingView(AppState& state, std::function<void()> close, QWidget* parent)
    : QWidget(parent),
      state_(state),
      close_(std::move(close)),
      mediaPermissionGranted_(!state.mediaPlayers().unreachableReason()) {
  setFixedSize(kSize);
  auto* stack = new QVBoxLayout(this);
  stack->setContentsMargins(0, 0, 0, 0);
  stack->setSpacing(0);
  stack->addSpacerItem(new QSpacerItem(0, kTopSpace, QSizePolicy::Minimum, QSizePolicy::Expanding));

  pageHost_ = new QWidget;
  pageHost_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  pages_ = {welcomeStep(), howToStep(), mediaStep(), launchStep()};
  for (QWidget* page : pages_) {
    page->setParent(pageHost_);
    page->hide();
  }
  stack->addWidget(pageHost_);
  stack->addSpacerItem(
      new QSpacerItem(0, kPageBottomSpace, QSizePolicy::Minimum, QSizePolicy::Expanding));

  dots_ = new PageDots(kStepCount);
  stack->addWidget(dots_, 0, Qt::AlignHCenter);
  stack->addSpacing(kDotsBottom);

  auto* navigation = new QHBoxLayout;
  navigation->setContentsMargins(kNavigationSide, 0, kNavigationSide, kNavigationBottom);
  back_ = new PlainButton;
  back_->addToLabel(new TextLabel(translated(QT_TRANSLATE_NOOP("OnboardingView", "Zurück")),
                                  Style::font(kBackSize), LabelLevel::secondary));
  back_->setAccessibleName(translated(QT_TRANSLATE_NOOP("OnboardingView", "Zurück")));
  back_->onClick([this] { back(); });
  forward_ = new QPushButton;
  forward_->setDefault(true);
  forward_->setCursor(Qt::PointingHandCursor);
  forward_->setFont(Style::font(kBodySize, QFont::Medium));
  forward_->setFixedHeight(kForwardHeight);
  forward_->setMinimumWidth(kForwardMinimumWidth);
  forward_->setStyleSheet(QStringLiteral(
      "QPushButton { background: palette(highlight); color: palette(highlighted-text);"
      " border: none; border-radius: 7px; padding: 0 18px; }"
      "QPushButton:pressed { background: palette(dark); }"
      "QPushButton:focus { outline: none; }"));
  QObject::connect(forward_, &QPushButton::clicked, this, [this] { forward(); });
  navigation->addWidget(back_);
  navigation->addStretch();
  navigation->addWidget(forward_);
  stack->addLayout(navigation);

  // The window's default action: Return and Enter press the forward button.
  for (const int key : {Qt::Key_Return, Qt::Key_Enter}) {
    auto* shortcut = new QShortcut(QKeySequence(key), this);
    shortcut->setContext(Qt::WidgetWithChildrenShortcut);
    QObject::connect(shortcut, &QShortcut::activated, this, [this] { forward(); });
  }

  transition_.setDuration(kTransitionMilliseconds);
  transition_.setEasingCurve(QEasingCurve::OutCubic);
  transition_.setStartValue(0.0);
  transition_.setEndValue(1.0);
  QObject::connect(&transition_, &QVariantAnimation::valueChanged, this, [this] { layoutPages(); });
  QObject::connect(&transition_, &QVariantAnimation::finished, this, [this] { endTransition(); });

  setMediaPermissionGranted(mediaPermissionGranted_);
  renderLaunch();
  showStep(0);
}

OnboardingView::~OnboardingView() {
  for (const TaskHandle& poll : polls_) {
    poll.cancel();
  }
}

QWidget* OnboardingView::welcomeStep() {
  auto* page = new QWidget;
  auto* stack = pageStack(page, kWelcomeSpacing);
  auto* icon = new AppIconView(kWelcomeIcon);
  icon->setIcon({.themeName = build::kBundleIdentifier});
  stack->addWidget(icon, 0, Qt::AlignHCenter);
  stack->addWidget(
      title(translated(QT_TRANSLATE_NOOP("OnboardingView", "Willkommen bei Quellix"))));
  stack->addWidget(
      body(translated(QT_TRANSLATE_NOOP("OnboardingView",
                                        "Dein Computer hat einen Lautstärkeregler für alles.\n"
                                        "Ab jetzt hat jede App ihren eigenen.")),
           kBodySize, LabelLevel::secondary, kBodyLineSpacing));
  return page;
}

QWidget* OnboardingView::instruction(const char* symbol, const QString& titleText,
                                     const QString& text) {
  auto* row = new QWidget;
  auto* line = new QHBoxLayout(row);
  line->setContentsMargins(0, 0, 0, 0);
  line->setSpacing(kInstructionSpacing);
  auto* icon = new SymbolView(QString::fromLatin1(symbol), kInstructionSymbolSize);
  icon->setFixedWidth(kInstructionSymbolFrame);
  line->addWidget(icon, 0, Qt::AlignTop);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(kInstructionTextSpacing);
  texts->addWidget(new TextLabel(titleText, Style::font(kInstructionTitleSize, QFont::DemiBold),
                                 LabelLevel::primary));
  auto* description = new TextLabel(text, Style::font(kInstructionTextSize), LabelLevel::secondary);
  description->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  description->setParagraph(true, kInstructionLineSpacing);
  // The window's width is fixed, so the text's width is known: its full height is reserved up
  // front instead of being negotiated through three nested layouts.
  description->setFixedHeight(description->heightForWidth(kInstructionTextWidth));
  texts->addWidget(description);
  line->addLayout(texts, 1);
  return row;
}

QWidget* OnboardingView::howToStep() {
  auto* page = new QWidget;
  auto* stack = pageStack(page, kHowToSpacing);
  stack->addWidget(title(translated(QT_TRANSLATE_NOOP("OnboardingView", "So funktioniert's"))));
  auto* list = new QVBoxLayout;
  list->setContentsMargins(kInstructionsSide, 0, kInstructionsSide, 0);
  list->setSpacing(kInstructionsSpacing);
  list->addWidget(instruction(
      "menubar.arrow.up.rectangle", translated(QT_TRANSLATE_NOOP("OnboardingView", "Panel öffnen")),
      translated(QT_TRANSLATE_NOOP("OnboardingView",
                                   "Klicke im Statusbereich deiner Systemleiste auf das "
                                   "Lautsprecher-Symbol. Jede App, die gerade Ton "
                                   "ausgibt, erscheint in der Liste."))));
  list->addWidget(instruction(
      "speaker.slash.fill", translated(QT_TRANSLATE_NOOP("OnboardingView", "App stummschalten")),
      translated(
          QT_TRANSLATE_NOOP("OnboardingView",
                            "Ein Klick auf die Zeile mutet genau diese App. Alle anderen laufen "
                            "normal weiter, nochmal klicken macht sie wieder hörbar."))));
  list->addWidget(instruction(
      "slider.horizontal.3", translated(QT_TRANSLATE_NOOP("OnboardingView", "Fein regeln")),
      translated(
          QT_TRANSLATE_NOOP("OnboardingView",
                            "Der Slider unter jeder App regelt ihre Lautstärke einzeln, der obere "
                            "Regler die Gesamtlautstärke."))));
  stack->addLayout(list);
  return page;
}

QWidget* OnboardingView::mediaStep() {
  auto* page = new QWidget;
  auto* stack = pageStack(page, kWelcomeSpacing);
  auto* symbol = new SymbolView(QStringLiteral("playpause.fill"), kMediaSymbolSize);
  stack->addWidget(symbol, 0, Qt::AlignHCenter);
  stack->addSpacing(kHeroSymbolBottom);
  stack->addWidget(title(translated(QT_TRANSLATE_NOOP("OnboardingView", "Musik direkt steuern"))));
  stack->addWidget(
      body(translated(QT_TRANSLATE_NOOP("OnboardingView",
                                        "Play, Pause und Skip direkt aus dem Panel.\n"
                                        "Funktioniert wie die Medientasten deiner Tastatur,\n"
                                        "egal ob Musik, Spotify oder ein Browser-Tab spielt.")),
           kBodySize, LabelLevel::secondary, kBodyLineSpacing));
  stack->addSpacing(kPermissionTop);

  granted_ = new QWidget;
  auto* granted = new QHBoxLayout(granted_);
  granted->setContentsMargins(0, 0, 0, 0);
  granted->setSpacing(kGrantedSpacing);
  const QColor green = QColor::fromRgba(Style::kGreen);
  auto* check = new SymbolView(QStringLiteral("checkmark.circle.fill"), kBodySize);
  check->setColor(green);
  auto* grantedText =
      new TextLabel(translated(QT_TRANSLATE_NOOP("OnboardingView", "Berechtigung erteilt")),
                    Style::font(kBodySize, QFont::Medium), LabelLevel::primary);
  grantedText->setColor(green);
  granted->addWidget(check);
  granted->addWidget(grantedText);
  stack->addWidget(granted_, 0, Qt::AlignHCenter);

  request_ = new QWidget;
  auto* request = new QVBoxLayout(request_);
  request->setContentsMargins(0, 0, 0, 0);
  request->setSpacing(kPermissionSpacing);
  permissionButton_ =
      new QPushButton(translated(QT_TRANSLATE_NOOP("OnboardingView", "Berechtigung erteilen")));
  permissionButton_->setAutoDefault(false);
  // The desktop style's bordered button hugs its text; give it a bordered button's side room.
  permissionButton_->setMinimumWidth(permissionButton_->sizeHint().width() +
                                     2 * kBorderedButtonPadding);
  QObject::connect(permissionButton_, &QPushButton::clicked, this, [this] { requestPermission(); });
  request->addWidget(permissionButton_, 0, Qt::AlignHCenter);
  request->addWidget(body(
      translated(QT_TRANSLATE_NOOP("OnboardingView",
                                   "Fragt dein Desktop, ob Quellix Medienplayer steuern darf,\n"
                                   "erlaube es, damit die Medientasten sie erreichen.")),
      kNoteSize, LabelLevel::tertiary, 0));
  stack->addWidget(request_);
  return page;
}

QWidget* OnboardingView::launchStep() {
  auto* page = new QWidget;
  auto* stack = pageStack(page, kWelcomeSpacing);
  stack->addWidget(new SymbolView(QStringLiteral("power"), kLaunchSymbolSize), 0, Qt::AlignHCenter);
  stack->addSpacing(kHeroSymbolBottom);
  stack->addWidget(title(translated(QT_TRANSLATE_NOOP("OnboardingView", "Immer griffbereit"))));
  stack->addWidget(
      body(translated(QT_TRANSLATE_NOOP("OnboardingView",
                                        "Quellix wartet still in der Systemleiste\n"
                                        "und braucht dabei praktisch keine Ressourcen.")),
           kBodySize, LabelLevel::secondary, kBodyLineSpacing));
  stack->addSpacing(kLaunchTop);
  launch_ = new QCheckBox(
      translated(QT_TRANSLATE_NOOP("OnboardingView", "Bei Anmeldung automatisch starten")));
  launch_->setFont(Style::font(kBodySize, QFont::Medium));
  // Toggled, not clicked: an assistive technology's toggle emits only that.
  QObject::connect(launch_, &QCheckBox::toggled, this, [this](bool checked) {
    state_.setLaunchAtLogin(checked);
    const QSignalBlocker blocker(launch_);
    launch_->setChecked(state_.launchAtLogin().get());
  });
  stack->addWidget(launch_, 0, Qt::AlignHCenter);
  stack->addSpacing(kMakerTop);
  auto* maker = body(translated(QT_TRANSLATE_NOOP("OnboardingView", "Eine App von norvalin")),
                     kMakerSize, LabelLevel::quaternary, 0);
  stack->addWidget(maker);
  return page;
}

void OnboardingView::forward() {
  if (step_ >= kStepCount - 1) {
    close_();
    return;
  }
  showStep(step_ + 1);
}

void OnboardingView::back() {
  if (step_ >= 1) {
    showStep(step_ - 1);
  }
}

bool OnboardingView::isTransitioning() const {
  return transition_.state() == QAbstractAnimation::Running;
}

void OnboardingView::endTransition() {
  if (previousStep_ >= 0 && previousStep_ != step_) {
    page(previousStep_).hide();
  }
  previousStep_ = -1;
  // The fade needs an effect only while it runs; a resting page paints directly.
  for (QWidget* each : pages_) {
    each->setGraphicsEffect(nullptr);
  }
  layoutPages();
}

void OnboardingView::showStep(int step) {
  if (isTransitioning()) {
    transition_.stop();
    endTransition();
  }
  previousStep_ = step == step_ ? -1 : step_;
  step_ = step;
  dots_->setCurrent(step);
  back_->setVisible(step >= 1);
  forward_->setText(step < kStepCount - 1
                        ? translated(QT_TRANSLATE_NOOP("OnboardingView", "Weiter"))
                        : translated(QT_TRANSLATE_NOOP("OnboardingView", "Los geht's")));
  forward_->setAccessibleName(forward_->text());
  currentPage().show();
  pageHost_->setFixedHeight(heightOf(&currentPage(), width()));
  if (previousStep_ >= 0 && isVisible()) {
    currentPage().setGraphicsEffect(new QGraphicsOpacityEffect);
    page(previousStep_).setGraphicsEffect(new QGraphicsOpacityEffect);
    transition_.start();
  } else {
    endTransition();
  }
  layoutPages();
}

void OnboardingView::layoutPages() {
  const int width = pageHost_->width();
  const double progress = isTransitioning() ? transition_.currentValue().toDouble() : 1.0;
  // Whichever way the user moves, the new page comes in from the trailing edge and the old one
  // leaves towards the leading edge.
  const auto place = [&](QWidget& shown, double offset, double opacity) {
    const int x = static_cast<int>(offset * width);
    shown.setGeometry(layoutDirection() == Qt::RightToLeft ? -x : x, 0, width,
                      heightOf(&shown, width));
    if (auto* fade = dynamic_cast<QGraphicsOpacityEffect*>(shown.graphicsEffect())) {
      fade->setOpacity(opacity);
    }
  };
  place(currentPage(), 1.0 - progress, progress);
  if (previousStep_ >= 0 && isTransitioning()) {
    place(page(previousStep_), -progress, 1.0 - progress);
  }
}

void OnboardingView::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  pageHost_->setFixedHeight(heightOf(&currentPage(), width()));
  layoutPages();
}

void OnboardingView::requestPermission() {
  state_.mediaPlayers().explainUnreachable();
  pollMediaPermission();
}

void OnboardingView::pollMediaPermission() {
  auto remaining = std::make_shared<int>(kPermissionChecks);
  auto handle = std::make_shared<TaskHandle>();
  *handle = state_.queue().every(kPermissionInterval,
                                 [self = QPointer<OnboardingView>(this), remaining, handle] {
                                   if (!self) {
                                     handle->cancel();
                                     return;
                                   }
                                   --*remaining;
                                   if (!self->state_.mediaPlayers().unreachableReason()) {
                                     self->setMediaPermissionGranted(true);
                                     handle->cancel();
                                   } else if (*remaining <= 0) {
                                     handle->cancel();
                                   }
                                 });
  polls_.push_back(*handle);
}

void OnboardingView::setMediaPermissionGranted(bool granted) {
  mediaPermissionGranted_ = granted;
  granted_->setVisible(granted);
  request_->setVisible(!granted);
  if (step_ == 2) {
    pageHost_->setFixedHeight(heightOf(&currentPage(), width()));
    layoutPages();
  }
}

void OnboardingView::renderLaunch() {
  withObservationTracking(
      [this] {
        const QSignalBlocker blocker(launch_);
        launch_->setChecked(state_.launchAtLogin().get());
      },
      [self = QPointer<OnboardingView>(this)] {
        if (self) {
          self->state_.queue().post([self] {
            if (self) {
              self->renderLaunch();
            }
          });
        }
      });
}

}  // namespace quellix::ui
