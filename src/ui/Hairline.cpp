#include "ui/Hairline.h"

#include <QPainter>

#include "ui/Style.h"

namespace quellix::ui {

Hairline::Hairline(Qt::Orientation orientation, QWidget* parent)
    : QWidget(parent), orientation_(orientation) {
  if (orientation == Qt::Horizontal) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(1);
  } else {
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Expanding);
    setFixedWidth(1);
  }
}

QSize Hairline::sizeHint() const {
  return {1, 1};
}

void Hairline::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  // One device pixel, whatever the scale: the logical line is as thin as the screen allows.
  const qreal ratio = painter.device()->devicePixelRatioF();
  const qreal thickness = 1.0 / ratio;
  const QColor color = Style::textColor(palette(), Style::kHairlineOpacity);
  if (orientation_ == Qt::Horizontal) {
    painter.fillRect(QRectF(0, (height() - thickness) / 2, width(), thickness), color);
  } else {
    painter.fillRect(QRectF((width() - thickness) / 2, 0, thickness, height()), color);
  }
}

}  // namespace quellix::ui
