#include "ui/StatisticsCard.h"

#include <QPainter>

#include "ui/Style.h"

namespace quellix::ui {

void StatisticsCard::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(Style::textColor(palette(), kFillOpacity));
  painter.drawRoundedRect(QRectF(rect()), kCornerRadius, kCornerRadius);
}

}  // namespace quellix::ui
