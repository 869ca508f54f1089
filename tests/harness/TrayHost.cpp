#include "harness/TrayHost.h"

#include <QDBusArgument>

namespace quellix::testing {

TrayHost::TrayHost(const QString& item)
    : bus_(connectPrivately()),
      service_(item.left(item.indexOf(QLatin1Char('/')))),
      itemPath_(item.mid(item.indexOf(QLatin1Char('/')))) {}

TrayHost::~TrayHost() {
  QDBusConnection::disconnectFromBus(bus_.name());
}

QDBusMessage TrayHost::call(const QString& path, const QString& interface, const QString& method,
                            const QVariantList& arguments) {
  return callAndWait(bus_, service_, path, interface, method, arguments);
}

QVariant TrayHost::property(const QString& path, const QString& interface, const QString& name) {
  return propertyOf(bus_, service_, path, interface, name);
}

QVariant TrayHost::itemProperty(const QString& name) {
  return property(itemPath_, kItemInterface, name);
}

std::vector<TrayHost::Pixmap> TrayHost::iconPixmaps() {
  const QVariant value = itemProperty(QStringLiteral("IconPixmap"));
  if (!value.canConvert<QDBusArgument>()) {
    return {};
  }
  const auto argument = value.value<QDBusArgument>();
  std::vector<Pixmap> pixmaps;
  argument.beginArray();
  while (!argument.atEnd()) {
    Pixmap pixmap;
    argument.beginStructure();
    argument >> pixmap.width >> pixmap.height >> pixmap.argb;
    argument.endStructure();
    pixmaps.push_back(pixmap);
  }
  argument.endArray();
  return pixmaps;
}

bool TrayHost::activate(QPoint where) {
  return call(itemPath_, kItemInterface, QStringLiteral("Activate"), {where.x(), where.y()})
             .type() == QDBusMessage::ReplyMessage;
}

std::unique_ptr<DBusSignalRecorder> TrayHost::follow(const QString& path, const QString& interface,
                                                     const QString& name) {
  return std::make_unique<DBusSignalRecorder>(bus_, service_, path, interface, name);
}

}  // namespace quellix::testing
