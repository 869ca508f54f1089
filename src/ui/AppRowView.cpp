#include "ui/AppRowView.h"

#include <QCoreApplication>
#include <QPainter>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include "ui/AppIconView.h"
#include "ui/PlainButton.h"
#include "ui/Style.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/ViewRules.h"
#include "ui/VolumeSlider.h"

namespace quellix::ui {
namespace {

constexpr int kNameSize = 13;
constexpr int kPlayingSize = 10;
constexpr int kStateSize = 13;

}  // namespace

AppRowView::AppRowView(std::function<void()> toggle, std::function<void(float)> setVolume,
                       QWidget* parent)
    : QWidget(parent), toggle_(std::move(toggle)), setVolume_(std::move(setVolume)) {
  setAttribute(Qt::WA_Hover);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

  auto* stack = new QVBoxLayout(this);
  stack->setContentsMargins(kHorizontalMargin, kVerticalMargin, kHorizontalMargin, kVerticalMargin);
  stack->setSpacing(kStackSpacing);

  button_ = new PlainButton(this);
  button_->contents().setSpacing(kLabelSpacing);
  icon_ = new AppIconView(kIconSide);
  button_->addToLabel(icon_);
  name_ = new TextLabel({}, Style::font(kNameSize, QFont::Medium), LabelLevel::primary);
  name_->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
  button_->addToLabel(name_, 0, Qt::AlignVCenter);
  // A box layout puts no spacing on one side of a spacer; the gap carries it.
  button_->contents().addSpacerItem(new QSpacerItem(
      kMinimumGap + kLabelSpacing, 0, QSizePolicy::MinimumExpanding, QSizePolicy::Minimum));
  playing_ = new SymbolView(QStringLiteral("waveform"), kPlayingSize);
  playing_->setVariableColor(true);
  button_->addToLabel(playing_, 0, Qt::AlignVCenter);
  state_ = new SymbolView(ViewRules::stateSymbol(false), kStateSize);
  state_->setFixedWidth(kStateFrameWidth);
  button_->addToLabel(state_, 0, Qt::AlignVCenter);
  // A switch to assistive technologies, checked while the application is muted.
  // Every flip is one toggle; the next update() shows what came of it.
  button_->onToggle([this](bool) { toggle_(); });
  stack->addWidget(button_);

  auto* sliderRow = new QHBoxLayout;
  sliderRow->setContentsMargins(kSliderIndent, 0, 0, 0);
  slider_ = new VolumeSlider(VolumeSlider::ControlSize::mini);
  slider_->onUserChange([this](double position) { setVolume_(static_cast<float>(position)); });
  sliderRow->addWidget(slider_);
  stack->addLayout(sliderRow);

  update(app_, false, 1.0f);
}

void AppRowView::update(const AudioApp& app, bool isMuted, float volume) {
  app_ = app;
  isMuted_ = isMuted;
  const QString name = QString::fromStdString(app.name);

  icon_->setIcon(app.icon);
  icon_->setOpacity(ViewRules::iconOpacity(isMuted));
  name_->setText(name);
  name_->setLevel(isMuted ? LabelLevel::secondary : LabelLevel::primary);
  playing_->setVisible(ViewRules::showsPlayingIndicator(app.isPlaying, isMuted));
  state_->setSymbol(ViewRules::stateSymbol(isMuted));
  state_->setColor(isMuted ? std::optional<QColor>(QColor::fromRgba(Style::kOrange))
                           : std::nullopt);

  const QString tooltip = ViewRules::rowTooltip(name, isMuted);
  button_->setTooltipText(tooltip);
  button_->setAccessibleName(name);
  {
    const QSignalBlocker blocker(button_);
    button_->setChecked(isMuted);
  }

  slider_->setPosition(static_cast<double>(volume));
  slider_->setEnabled(!isMuted);
  slider_->setOpacity(ViewRules::sliderOpacity(isMuted, volume));
  slider_->setAccessibleName(
      QCoreApplication::translate("AppRowView", "Lautstärke von %1").arg(name));
}

void AppRowView::setHovering(bool hovering) {
  if (hovering != hovering_) {
    hovering_ = hovering;
    QWidget::update();
  }
}

void AppRowView::enterEvent(QEnterEvent* event) {
  QWidget::enterEvent(event);
  setHovering(true);
}

void AppRowView::leaveEvent(QEvent* event) {
  QWidget::leaveEvent(event);
  setHovering(false);
}

void AppRowView::paintEvent(QPaintEvent*) {
  if (!hovering_) {
    return;
  }
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(Style::textColor(palette(), kHoverOpacity));
  painter.drawRoundedRect(QRectF(rect()), kCornerRadius, kCornerRadius);
}

}  // namespace quellix::ui
