#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QImage>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

class QIcon;

namespace quellix {

// The structures the tray protocols put on the wire, with their D-Bus marshalling.

// One picture of an icon: ARGB32 in network byte order, row after row (iiay).
struct TrayIconPixmap {
  int width = 0;
  int height = 0;
  QByteArray bytes;
};
using TrayIconPixmapList = QList<TrayIconPixmap>;

// The item's tooltip: icon name, pictures, title and text ((sa(iiay)ss)).
struct TrayToolTip {
  QString iconName;
  TrayIconPixmapList pixmaps;
  QString title;
  QString text;
};

// A menu entry and, when asked for, its children; each child travels as a variant holding
// the same structure again ((ia{sv}av)).
struct DBusMenuLayoutItem {
  int id = 0;
  QVariantMap properties;
  QList<DBusMenuLayoutItem> children;
};

// An entry's properties without its children ((ia{sv})).
struct DBusMenuItemProperties {
  int id = 0;
  QVariantMap properties;
};
using DBusMenuItemPropertiesList = QList<DBusMenuItemProperties>;

// Names of properties an entry no longer has ((ias)).
struct DBusMenuRemovedProperties {
  int id = 0;
  QStringList names;
};
using DBusMenuRemovedPropertiesList = QList<DBusMenuRemovedProperties>;

// One event of a batch ((isvu)).
struct DBusMenuEvent {
  int id = 0;
  QString eventId;
  QDBusVariant data;
  uint timestamp = 0;
};
using DBusMenuEventList = QList<DBusMenuEvent>;

QDBusArgument& operator<<(QDBusArgument& argument, const TrayIconPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& argument, TrayIconPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& argument, const TrayToolTip& toolTip);
const QDBusArgument& operator>>(const QDBusArgument& argument, TrayToolTip& toolTip);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuLayoutItem& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuLayoutItem& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuItemProperties& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuItemProperties& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuRemovedProperties& item);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuRemovedProperties& item);
QDBusArgument& operator<<(QDBusArgument& argument, const DBusMenuEvent& event);
const QDBusArgument& operator>>(const QDBusArgument& argument, DBusMenuEvent& event);

// Makes the types known to Qt D-Bus; call before exporting or decoding any of them.
// Safe to call more than once.
void registerDBusTrayTypes();

// The picture a host shows when it cannot find the icon by name: `symbol`'s shape, light and
// ringed by a dark line, so that it reads on a light panel as well as on a dark one, as a
// square image of `size` pixels.
QImage outlinedTrayImage(const QIcon& symbol, int size);

// `symbol` outlined as above at each size the hosts commonly ask for, as the protocol wants it.
TrayIconPixmapList trayIconPixmaps(const QIcon& symbol);

}  // namespace quellix

Q_DECLARE_METATYPE(quellix::TrayIconPixmap)
Q_DECLARE_METATYPE(quellix::TrayToolTip)
Q_DECLARE_METATYPE(quellix::DBusMenuLayoutItem)
Q_DECLARE_METATYPE(quellix::DBusMenuItemProperties)
Q_DECLARE_METATYPE(quellix::DBusMenuRemovedProperties)
Q_DECLARE_METATYPE(quellix::DBusMenuEvent)
