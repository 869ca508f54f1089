#pragma once

#include <QColor>
#include <QImage>
#include <QRectF>
#include <QString>

class QPainter;

namespace quellix::ui {

// Draws the program's own monochrome symbols, stored by name in the resources, tinted with any
// colour at any device pixel ratio. Tinted images are cached, so a repaint costs one blit.
class SymbolImages {
 public:
  static bool exists(const QString& name);
  // How many separately lit parts ("layer1", "layer2", ...) the symbol has; 0 for none.
  static int layerCount(const QString& name);
  // The symbol's outline box with its longer edge 1: most symbols are square, a wide one is
  // drawn without empty space above and below.
  static QSizeF shape(const QString& name);

  // The symbol drawn as large as fits centred in `rect`, rasterised for the device
  // pixels the painter really covers and placed on their grid; `layer` 0 draws the whole
  // symbol, k only its k-th part.
  static void paint(QPainter& painter, const QString& name, const QRectF& rect, const QColor& color,
                    int layer = 0);

  // The whole symbol as an image whose longer edge is `sidePixels` device pixels, tinted, for
  // a device of `devicePixelRatio` (the image's own ratio).
  static QImage image(const QString& name, int sidePixels, const QColor& color, int layer = 0,
                      qreal devicePixelRatio = 1.0);

  static QString resourcePath(const QString& name);
};

}  // namespace quellix::ui
