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

  // The symbol drawn into the square of side `side` centred in `rect`, on the painter's own
  // device pixel ratio; `layer` 0 draws the whole symbol, k only its k-th part.
  static void paint(QPainter& painter, const QString& name, const QRectF& rect, const QColor& color,
                    int layer = 0);

  // The whole symbol as an image of `sidePixels` square, tinted.
  static QImage image(const QString& name, int sidePixels, const QColor& color, int layer = 0);

  static QString resourcePath(const QString& name);
};

}  // namespace quellix::ui
