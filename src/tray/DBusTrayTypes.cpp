#include "tray/DBusTrayTypes.h"

#include <QDBusMetaType>
#include <QIcon>
#include <QImage>
#include <QPixmap>
#include <QtEndian>
#include <array>

namespace quellix {

namespace {

// Panels draw their icons at one of these sizes; sending them all spares the host a scaling.
constexpr std::array kTrayIconSizes = {16, 22, 24, 32, 48};

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

TrayIconPixmapList trayIconPixmaps(const QIcon& icon) {
  TrayIconPixmapList pixmaps;
  if (icon.isNull()) {
    return pixmaps;
  }
  for (const int size : kTrayIconSizes) {
    // One device pixel per pixel: the host scales for its own screen.
    const QImage image =
        icon.pixmap(QSize(size, size), 1.0).toImage().convertToFormat(QImage::Format_ARGB32);
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
