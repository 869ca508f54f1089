#include "ui/PlainButton.h"

#include <QFocusEvent>
#include <QPainter>

#include "ui/Style.h"

namespace quellix::ui {
namespace {

constexpr double kPressedOpacity = 0.08;
constexpr double kFocusRingOpacity = 0.6;
constexpr qreal kFocusRingRadius = 4;

}  // namespace

PlainButton::PlainButton(QWidget* parent)
    : QAbstractButton(parent), layout_(new QHBoxLayout(this)) {
  layout_->setContentsMargins(0, 0, 0, 0);
  layout_->setSpacing(0);
  setCursor(Qt::PointingHandCursor);
  setFocusPolicy(Qt::TabFocus);
}

void PlainButton::addToLabel(QWidget* child, int stretch, Qt::Alignment alignment) {
  child->setAttribute(Qt::WA_TransparentForMouseEvents);
  layout_->addWidget(child, stretch, alignment);
}

void PlainButton::setTooltipText(const QString& text) {
  setToolTip(text);
  setAccessibleDescription(text);
}

void PlainButton::onClick(std::function<void()> action) {
  QObject::connect(this, &QAbstractButton::clicked, this,
                   [action = std::move(action)] { action(); });
}

void PlainButton::onToggle(std::function<void(bool)> action) {
  setCheckable(true);
  // An assistive technology's toggle emits toggled() but never clicked().
  QObject::connect(this, &QAbstractButton::toggled, this,
                   [action = std::move(action)](bool checked) { action(checked); });
}

QSize PlainButton::sizeHint() const {
  return layout_->sizeHint();
}

QSize PlainButton::minimumSizeHint() const {
  return layout_->minimumSize();
}

void PlainButton::focusInEvent(QFocusEvent* event) {
  showsFocusRing_ =
      event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason;
  QAbstractButton::focusInEvent(event);
}

void PlainButton::focusOutEvent(QFocusEvent* event) {
  showsFocusRing_ = false;
  QAbstractButton::focusOutEvent(event);
}

void PlainButton::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  if (isDown()) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(Style::textColor(palette(), kPressedOpacity));
    painter.drawRoundedRect(QRectF(rect()), kFocusRingRadius, kFocusRingRadius);
  }
  if (hasFocus() && showsFocusRing_) {
    QColor ring = Style::accentColor(palette());
    ring.setAlphaF(static_cast<float>(kFocusRingOpacity));
    painter.setPen(QPen(ring, 1));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), kFocusRingRadius,
                            kFocusRingRadius);
  }
}

}  // namespace quellix::ui
