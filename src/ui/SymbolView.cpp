#include "ui/SymbolView.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

#include "ui/SymbolImages.h"

namespace quellix::ui {
namespace {

// The outgoing symbol shrinks a little while the incoming one grows into place.
constexpr double kReplaceScaleDelta = 0.25;

}  // namespace

SymbolView::SymbolView(const QString& name, int textSize, QWidget* parent)
    : QWidget(parent), name_(name), textSize_(textSize) {
  setAttribute(Qt::WA_TransparentForMouseEvents);
  setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
  replace_.setDuration(kReplaceMilliseconds);
  replace_.setStartValue(0.0);
  replace_.setEndValue(1.0);
  replace_.setEasingCurve(QEasingCurve::InOutQuad);
  QObject::connect(&replace_, &QVariantAnimation::valueChanged, this, [this] { update(); });
  QObject::connect(&replace_, &QVariantAnimation::finished, this, [this] {
    previousName_.clear();
    update();
  });
  frameTimer_.setInterval(kVariableColorFrameMilliseconds);
  QObject::connect(&frameTimer_, &QTimer::timeout, this, [this] { update(); });
}

int SymbolView::symbolSide() const {
  return static_cast<int>(std::lround(textSize_ * Style::kSymbolScale));
}

QSize SymbolView::sizeHint() const {
  return {symbolSide(), symbolSide()};
}

void SymbolView::setSymbol(const QString& name) {
  if (name == name_) {
    return;
  }
  previousName_ = name_;
  name_ = name;
  if (isVisible()) {
    replace_.stop();
    replace_.start();
  } else {
    previousName_.clear();
  }
  update();
}

bool SymbolView::isReplacing() const {
  return replace_.state() == QAbstractAnimation::Running;
}

void SymbolView::setLevel(LabelLevel level) {
  level_ = level;
  update();
}

void SymbolView::setColor(std::optional<QColor> color) {
  color_ = std::move(color);
  update();
}

QColor SymbolView::color() const {
  return color_ ? *color_ : Style::labelColor(palette(), level_);
}

void SymbolView::setVariableColor(bool on) {
  if (on == variableColor_) {
    return;
  }
  variableColor_ = on;
  updateAnimation();
  update();
}

void SymbolView::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  updateAnimation();
}

void SymbolView::hideEvent(QHideEvent* event) {
  QWidget::hideEvent(event);
  updateAnimation();
}

void SymbolView::updateAnimation() {
  const bool run = variableColor_ && isVisible() && SymbolImages::layerCount(name_) > 0;
  if (run && !frameTimer_.isActive()) {
    variableClock_.start();
    frameTimer_.start();
  } else if (!run) {
    frameTimer_.stop();
  }
}

void SymbolView::paintSymbol(QPainter& painter, const QString& name, qreal scale) const {
  const qreal side = symbolSide() * scale;
  const QRectF target(QPointF(width() / 2.0 - side / 2, height() / 2.0 - side / 2),
                      QSizeF(side, side));
  const QColor tint = color();
  const int layers = SymbolImages::layerCount(name);
  if (!variableColor_ || layers == 0) {
    SymbolImages::paint(painter, name, target, tint);
    return;
  }
  // One part at a time is lit, the light moving along the parts and fading out behind.
  const double position = frameTimer_.isActive() ? static_cast<double>(variableClock_.elapsed()) /
                                                       kVariableColorStepMilliseconds
                                                 : 0.0;
  const double cycle = std::fmod(position, layers + 1.0);
  for (int layer = 1; layer <= layers; ++layer) {
    const double distance = std::abs(cycle - (layer - 1));
    const double light = std::clamp(1.0 - distance, 0.0, 1.0);
    painter.save();
    painter.setOpacity(painter.opacity() *
                       (kVariableColorDimOpacity + (1.0 - kVariableColorDimOpacity) * light));
    SymbolImages::paint(painter, name, target, tint, layer);
    painter.restore();
  }
}

void SymbolView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  if (!isReplacing() || previousName_.isEmpty()) {
    paintSymbol(painter, name_, 1.0);
    return;
  }
  const double progress = replace_.currentValue().toDouble();
  painter.setOpacity(1.0 - progress);
  paintSymbol(painter, previousName_, 1.0 - kReplaceScaleDelta * progress);
  painter.setOpacity(progress);
  paintSymbol(painter, name_, 1.0 - kReplaceScaleDelta * (1.0 - progress));
}

}  // namespace quellix::ui
