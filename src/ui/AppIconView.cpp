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
  if (icon == icon_ && !source_.isEmpty()) {
    return;
  }
  icon_ = icon;
  themeIcon_ = {};
  symbol_.clear();
  const QString themeName = QString::fromStdString(icon.themeName);
  // The program's own icon ships inside it too, for when no theme has it installed.
  const QString bundled = QStringLiteral(":/icons/%1.svg").arg(themeName);
  if (themeName.isEmpty()) {
    // Drawn from its symbol below.
  } else if (QFileInfo(themeName).isAbsolute()) {
    if (QFileInfo::exists(themeName)) {
      themeIcon_ = QIcon(themeName);
      source_ = QStringLiteral("file:") + themeName;
    }
  } else if (QIcon::hasThemeIcon(themeName)) {
    themeIcon_ = QIcon::fromTheme(themeName);
    source_ = QStringLiteral("theme:") + themeName;
  } else if (QFileInfo::exists(bundled)) {
    themeIcon_ = QIcon(bundled);
    source_ = QStringLiteral("resource:") + bundled;
  }
  if (themeIcon_.isNull()) {
    const QString symbol = QString::fromStdString(icon.symbol);
    symbol_ = SymbolImages::exists(symbol) ? symbol : QString::fromLatin1(kGenericSymbol);
    source_ = QStringLiteral("symbol:") + symbol_;
  }
  update();
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
