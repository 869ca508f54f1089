#include "ui/SymbolImages.h"

#include <QFile>
#include <QHash>
#include <QPainter>
#include <QRegularExpression>
#include <QSvgRenderer>
#include <cmath>
#include <memory>

namespace quellix::ui {
namespace {

// Enough for every symbol at every size a session shows; a theme change only adds entries.
constexpr qsizetype kMaxCachedImages = 256;

struct SymbolSource {
  QByteArray svg;
  int layers = 0;
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

QImage SymbolImages::image(const QString& name, int sidePixels, const QColor& color, int layer) {
  static QHash<QString, QImage> cache;
  const QString key =
      QStringLiteral("%1|%2|%3|%4").arg(name).arg(sidePixels).arg(color.rgba(), 8, 16).arg(layer);
  if (auto found = cache.constFind(key); found != cache.constEnd()) {
    return found.value();
  }
  const SymbolSource* symbol = source(name);
  if (symbol == nullptr || sidePixels <= 0) {
    return {};
  }
  QSvgRenderer renderer(layer == 0 ? symbol->svg : onlyLayer(symbol->svg, layer, symbol->layers));
  QImage result(sidePixels, sidePixels, QImage::Format_ARGB32_Premultiplied);
  result.fill(Qt::transparent);
  {
    QPainter painter(&result);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, QRectF(0, 0, sidePixels, sidePixels));
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(result.rect(), color);
  }
  if (cache.size() >= kMaxCachedImages) {
    cache.clear();
  }
  cache.insert(key, result);
  return result;
}

void SymbolImages::paint(QPainter& painter, const QString& name, const QRectF& rect,
                         const QColor& color, int layer) {
  const qreal side = std::min(rect.width(), rect.height());
  if (side <= 0) {
    return;
  }
  const qreal ratio = painter.device() ? painter.device()->devicePixelRatioF() : 1.0;
  const double scale = std::hypot(painter.transform().m11(), painter.transform().m12());
  const int pixels = static_cast<int>(std::ceil(side * ratio * std::max(scale, 1.0)));
  QImage tinted = image(name, pixels, color, layer);
  if (tinted.isNull()) {
    return;
  }
  const QRectF target(rect.center().x() - side / 2, rect.center().y() - side / 2, side, side);
  painter.save();
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.drawImage(target, tinted);
  painter.restore();
}

}  // namespace quellix::ui
