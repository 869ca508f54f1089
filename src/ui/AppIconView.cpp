#include "ui/AppIconView.h"

#include <QFileInfo>
#include <QPainter>

#include "ui/Style.h"
#include "ui/SymbolImages.h"

namespace quellix::ui {

AppIconView::AppIconView(int side, QWidget* parent) : QWidget(parent), side_(side) {
  setFixedSize(side, side);
  setIcon({});
}

void AppIconView::setIcon(const AppIcon& icon) {
  if (icon == icon_ && (!themeIcon_.isNull() || !symbol_.isEmpty())) {
    return;
  }
  icon_ = icon;
  themeIcon_ = {};
  symbol_.clear();
  const QString themeName = QString::fromStdString(icon.themeName);
  if (!themeName.isEmpty()) {
    if (QFileInfo(themeName).isAbsolute()) {
      if (QFileInfo::exists(themeName)) {
        themeIcon_ = QIcon(themeName);
      }
    } else if (QIcon::hasThemeIcon(themeName)) {
      themeIcon_ = QIcon::fromTheme(themeName);
    }
  }
  if (themeIcon_.isNull()) {
    const QString symbol = QString::fromStdString(icon.symbol);
    symbol_ = SymbolImages::exists(symbol) ? symbol : QString::fromLatin1(kGenericSymbol);
  }
  update();
}

QString AppIconView::source() const {
  if (!themeIcon_.isNull()) {
    const QString themeName = QString::fromStdString(icon_.themeName);
    return (QFileInfo(themeName).isAbsolute() ? QStringLiteral("file:")
                                              : QStringLiteral("theme:")) +
           themeName;
  }
  return QStringLiteral("symbol:") + symbol_;
}

void AppIconView::setOpacity(double opacity) {
  if (opacity != opacity_) {
    opacity_ = opacity;
    update();
  }
}

void AppIconView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setOpacity(opacity_);
  const QRectF target(0, 0, side_, side_);
  if (!themeIcon_.isNull()) {
    const qreal ratio = painter.device()->devicePixelRatioF();
    const QPixmap pixmap = themeIcon_.pixmap(QSize(side_, side_), ratio);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const QSizeF shown = pixmap.deviceIndependentSize().scaled(target.size(), Qt::KeepAspectRatio);
    painter.drawPixmap(
        QRectF(QPointF((side_ - shown.width()) / 2, (side_ - shown.height()) / 2), shown), pixmap,
        QRectF(pixmap.rect()));
    return;
  }
  SymbolImages::paint(painter, symbol_, target,
                      Style::labelColor(palette(), LabelLevel::secondary));
}

}  // namespace quellix::ui
