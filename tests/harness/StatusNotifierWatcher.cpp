#include "harness/StatusNotifierWatcher.h"

#include <stdexcept>

#include "harness/DBusClient.h"

namespace quellix::testing {

StatusNotifierWatcherAdaptor::StatusNotifierWatcherAdaptor(QObject* object, bool hostRegistered)
    : QDBusAbstractAdaptor(object), hostRegistered_(hostRegistered) {}

void StatusNotifierWatcherAdaptor::setHostRegistered(bool registered) {
  hostRegistered_ = registered;
  if (registered) {
    emit StatusNotifierHostRegistered();
  } else {
    emit StatusNotifierHostUnregistered();
  }
}

void StatusNotifierWatcherAdaptor::RegisterStatusNotifierItem(const QString& serviceOrPath,
                                                              const QDBusMessage& message) {
  // Items name either their bus name (at the usual path) or their path (on the caller's
  // connection).
  const QString item = serviceOrPath.startsWith(QLatin1Char('/'))
                           ? message.service() + serviceOrPath
                           : serviceOrPath + QStringLiteral("/StatusNotifierItem");
  registeredItems_.append(item);
  emit StatusNotifierItemRegistered(item);
}

void StatusNotifierWatcherAdaptor::RegisterStatusNotifierHost(const QString& /*service*/) {
  setHostRegistered(true);
}

StatusNotifierWatcher::StatusNotifierWatcher(bool hostRegistered)
    : adaptor_(new StatusNotifierWatcherAdaptor(&object_, hostRegistered)),
      bus_(connectPrivately()) {
  if (!bus_.registerObject(QStringLiteral("/StatusNotifierWatcher"), &object_,
                           QDBusConnection::ExportAdaptors) ||
      !bus_.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"))) {
    throw std::runtime_error("cannot start the tray watcher: " +
                             bus_.lastError().message().toStdString());
  }
}

StatusNotifierWatcher::~StatusNotifierWatcher() {
  QDBusConnection::disconnectFromBus(bus_.name());
}

}  // namespace quellix::testing
