#include "ui/PageDots.h"

#include <QPainter>

#include "ui/Style.h"

namespace quellix::ui {

PageDots::PageDots(int count, QWidget* parent) : QWidget(parent), count_(count) {
  setFixedSize(sizeHint());
}

void PageDots::setCurrent(int index) {
  if (index != current_) {
    current_ = index;
    update();
  }
}

QSize PageDots::sizeHint() const {
  return {count_ * kDiameter + (count_ - 1) * kSpacing, kDiameter};
}

void PageDots::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  for (int index = 0; index < count_; ++index) {
    painter.setBrush(Style::textColor(palette(), dotOpacity(index)));
    painter.drawEllipse(QRectF(index * (kDiameter + kSpacing), 0, kDiameter, kDiameter));
  }
}

}  // namespace quellix::ui
