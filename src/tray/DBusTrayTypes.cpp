#include "tray/DBusTrayTypes.h"

#include <QDBusMetaType>
#include <QIcon>
#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QtEndian>
#include <array>

namespace quellix {

namespace {

// Panels draw their icons at one of these sizes; sending them all spares the host a scaling.
constexpr std::array kTrayIconSizes = {16, 22, 24, 32, 48};

// Near white and near black rather than the extremes, so that the edge stays soft.
constexpr QRgb kSymbolColor = 0xfff4f4f4;
constexpr QRgb kOutlineColor = 0xff1c1c1c;

QImage tinted(const QImage& shape, QRgb color) {
  QImage image = shape;
  QPainter painter(&image);
  painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
  painter.fillRect(image.rect(), QColor::fromRgba(color));
  return image;
}

}  // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const TrayIconPixmap& pixmap) {
  argument.beginStructure();
  argument << pixmap.width << pixmap.height << pixmap.bytes;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, TrayIconPixmap& pixmap) {
  argument.beginStructure();
  argument >> pixmap.width >> pixmap.height >> pixmap.bytes;
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const TrayToolTip& toolTip) {
  argument.beginStructure();
  argument << toolTip.iconName << toolTip.pixmaps << toolTip.title << toolTip.text;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, TrayToolTip& toolTip) {
  argument.beginStructure();
  argument >> toolTip.iconName >> toolTip.pixmaps >> toolTip.title >> toolTip.text;
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayoutItem& item) {
  argument.beginStructure();
  argument << item.id << item.properties;
  argument.beginArray(qMetaTypeId<QDBusVariant>());
  for (const auto& child : item.children) {
    argument << QDBusVariant(QVariant::fromValue(child));
  }
  argument.endArray();
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayoutItem& item) {
  argument.beginStructure();
  argument >> item.id >> item.properties;
  item.children.clear();
  argument.beginArray();
  while (!argument.atEnd()) {
    QDBusVariant child;
    argument >> child;
    // A received child is still raw D-Bus data; it decodes by this same operator.
    item.children.append(qdbus_cast<DBusMenuLayoutItem>(child.variant()));
  }
  argument.endArray();
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItemProperties& item) {
  argument.beginStructure();
  argument << item.id << item.properties;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItemProperties& item) {
  argument.beginStructure();
  argument >> item.id >> item.properties;
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuRemovedProperties& item) {
  argument.beginStructure();
  argument << item.id << item.names;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuRemovedProperties& item) {
  argument.beginStructure();
  argument >> item.id >> item.names;
  argument.endStructure();
  return argument;
}

QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event) {
  argument.beginStructure();
  argument << event.id << event.eventId << event.data << event.timestamp;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event) {
  argument.beginStructure();
  argument >> event.id >> event.eventId >> event.data >> event.timestamp;
  argument.endStructure();
  return argument;
}

void registerDBusTrayTypes() {
  static const bool registered = [] {
    qDBusRegisterMetaType<TrayIconPixmap>();
    qDBusRegisterMetaType<TrayIconPixmapList>();
    qDBusRegisterMetaType<TrayToolTip>();
    qDBusRegisterMetaType<DBusMenuLayoutItem>();
    qDBusRegisterMetaType<DBusMenuItemProperties>();
    qDBusRegisterMetaType<DBusMenuItemPropertiesList>();
    qDBusRegisterMetaType<DBusMenuRemovedProperties>();
    qDBusRegisterMetaType<DBusMenuRemovedPropertiesList>();
    qDBusRegisterMetaType<DBusMenuEvent>();
    qDBusRegisterMetaType<DBusMenuEventList>();
    // The adaptors' signatures name the lists by these aliases.
    qRegisterMetaType<TrayIconPixmapList>("quellix::TrayIconPixmapList");
    qRegisterMetaType<DBusMenuItemPropertiesList>("quellix::DBusMenuItemPropertiesList");
    qRegisterMetaType<DBusMenuRemovedPropertiesList>("quellix::DBusMenuRemovedPropertiesList");
    qRegisterMetaType<DBusMenuEventList>("quellix::DBusMenuEventList");
    return true;
  }();
  (void)registered;
}

QImage outlinedTrayImage(const QIcon& symbol, int size) {
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  if (symbol.isNull() || size < 4) {
    return image;
  }
  // One pixel of every side is left for the outline. One device pixel per pixel: the host
  // scales for its own screen.
  QImage shape(size, size, QImage::Format_ARGB32_Premultiplied);
  shape.fill(Qt::transparent);
  {
    QPainter painter(&shape);
    painter.drawPixmap(1, 1, symbol.pixmap(QSize(size - 2, size - 2), 1.0));
  }
  const QImage outline = tinted(shape, kOutlineColor);
  QPainter painter(&image);
  for (int dy = -1; dy <= 1; ++dy) {
    for (int dx = -1; dx <= 1; ++dx) {
      painter.drawImage(dx, dy, outline);
    }
  }
  painter.drawImage(0, 0, tinted(shape, kSymbolColor));
  return image;
}

TrayIconPixmapList trayIconPixmaps(const QIcon& symbol) {
  TrayIconPixmapList pixmaps;
  if (symbol.isNull()) {
    return pixmaps;
  }
  for (const int size : kTrayIconSizes) {
    const QImage image = outlinedTrayImage(symbol, size).convertToFormat(QImage::Format_ARGB32);
    if (image.isNull()) {
      continue;
    }
    TrayIconPixmap pixmap{.width = image.width(), .height = image.height()};
    pixmap.bytes.resize(qsizetype(image.width()) * image.height() * 4);
    char* out = pixmap.bytes.data();
    for (int y = 0; y < image.height(); ++y) {
      const auto* row = reinterpret_cast<const quint32*>(image.constScanLine(y));
      for (int x = 0; x < image.width(); ++x, out += sizeof(quint32)) {
        qToBigEndian(row[x], out);
      }
    }
    pixmaps.append(pixmap);
  }
  return pixmaps;
}

}  // namespace quellix
