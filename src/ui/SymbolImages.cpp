#include "ui/SymbolImages.h"

#include <QFile>
#include <QHash>
#include <QPainter>
#include <QRegularExpression>
#include <QSvgRenderer>
#include <cmath>
#include <memory>

#include "ui/Style.h"

namespace quellix::ui {
namespace {

// Enough for every symbol at every size a session shows; a theme change only adds entries.
constexpr qsizetype kMaxCachedImages = 256;
// A side that is a whole number of device pixels but for rounding is not a pixel larger.
constexpr qreal kSnapTolerance = 1e-6;

struct SymbolSource {
  QByteArray svg;
  int layers = 0;
  QSizeF shape{1, 1};
};

const SymbolSource* source(const QString& name) {
  static QHash<QString, std::shared_ptr<SymbolSource>> sources;
  if (auto found = sources.find(name); found != sources.end()) {
    return found.value().get();
  }
  QFile file(SymbolImages::resourcePath(name));
  std::shared_ptr<SymbolSource> loaded;
  if (file.open(QIODevice::ReadOnly)) {
    loaded = std::make_shared<SymbolSource>();
    loaded->svg = file.readAll();
    static const QRegularExpression layerId(QStringLiteral("id=\"layer\\d+\""));
    loaded->layers = static_cast<int>(QString::fromUtf8(loaded->svg).count(layerId));
    const QSizeF box = QSvgRenderer(loaded->svg).viewBoxF().size();
    if (!box.isEmpty()) {
      loaded->shape = box / std::max(box.width(), box.height());
    }
  }
  sources.insert(name, loaded);
  return loaded.get();
}

// The symbol with every part but `layer` hidden.
QByteArray onlyLayer(const QByteArray& svg, int layer, int layers) {
  QByteArray result = svg;
  for (int other = 1; other <= layers; ++other) {
    if (other != layer) {
      const QByteArray id = "id=\"layer" + QByteArray::number(other) + "\"";
      result.replace(id, id + " display=\"none\"");
    }
  }
  return result;
}

}  // namespace

QString SymbolImages::resourcePath(const QString& name) {
  return QStringLiteral(":/symbols/%1.svg").arg(name);
}

bool SymbolImages::exists(const QString& name) {
  return source(name) != nullptr;
}

int SymbolImages::layerCount(const QString& name) {
  const SymbolSource* found = source(name);
  return found ? found->layers : 0;
}

QSizeF SymbolImages::shape(const QString& name) {
  const SymbolSource* found = source(name);
  return found ? found->shape : QSizeF(1, 1);
}

QImage SymbolImages::image(const QString& name, int sidePixels, const QColor& color, int layer,
                           qreal devicePixelRatio) {
  static QHash<QString, QImage> cache;
  const QString key = QStringLiteral("%1|%2|%3|%4|%5")
                          .arg(name)
                          .arg(sidePixels)
                          .arg(color.rgba(), 8, 16)
                          .arg(layer)
                          .arg(devicePixelRatio);
  if (auto found = cache.constFind(key); found != cache.constEnd()) {
    return found.value();
  }
  const SymbolSource* symbol = source(name);
  if (symbol == nullptr || sidePixels <= 0) {
    return {};
  }
  QSvgRenderer renderer(layer == 0 ? symbol->svg : onlyLayer(symbol->svg, layer, symbol->layers));
  const QSize pixels(
      std::max(1, static_cast<int>(std::lround(sidePixels * symbol->shape.width()))),
      std::max(1, static_cast<int>(std::lround(sidePixels * symbol->shape.height()))));
  QImage result(pixels, QImage::Format_ARGB32_Premultiplied);
  result.fill(Qt::transparent);
  {
    QPainter painter(&result);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, QRectF(QPointF(0, 0), pixels));
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(result.rect(), color);
  }
  result.setDevicePixelRatio(devicePixelRatio);
  if (cache.size() >= kMaxCachedImages) {
    cache.clear();
  }
  cache.insert(key, result);
  return result;
}

void SymbolImages::paint(QPainter& painter, const QString& name, const QRectF& rect,
                         const QColor& color, int layer) {
  const QSizeF shape = SymbolImages::shape(name);
  const qreal side = std::min(rect.width() / shape.width(), rect.height() / shape.height());
  if (side <= 0) {
    return;
  }
  const qreal ratio = Style::devicePixelRatio(painter);
  const double scale = std::hypot(painter.transform().m11(), painter.transform().m12());
  const qreal density = ratio * std::max(scale, 1.0);
  const int pixels = static_cast<int>(std::ceil(side * density - kSnapTolerance));
  const QImage tinted = image(name, pixels, color, layer, density);
  if (tinted.isNull()) {
    return;
  }
  // Whole device pixels, from a device pixel's corner: the picture lands on the screen's grid
  // one to one instead of being resampled into a blur.
  const QSizeF shown = QSizeF(tinted.size()) / density;
  const auto snapped = [density](qreal value) { return std::round(value * density) / density; };
  const QRectF target(snapped(rect.center().x() - shown.width() / 2),
                      snapped(rect.center().y() - shown.height() / 2), shown.width(),
                      shown.height());
  painter.save();
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.drawImage(target, tinted);
  painter.restore();
}

}  // namespace quellix::ui
