#include "harness/FakeStatusNotifierWatcher.h"

#include <QDBusConnectionInterface>
#include <stdexcept>

namespace quellix::testing {

FakeWatcherAdaptor::FakeWatcherAdaptor(QObject* object, bool hostRegistered)
    : QDBusAbstractAdaptor(object), hostRegistered_(hostRegistered) {}

FakeStatusNotifierWatcher::FakeStatusNotifierWatcher(const QString& connectionName,
                                                     bool hostRegistered)
    : adaptor_(new FakeWatcherAdaptor(&object_, hostRegistered)),
      bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName)),
      connectionName_(connectionName) {
  if (!bus_.registerObject(QStringLiteral("/StatusNotifierWatcher"), &object_,
                           QDBusConnection::ExportAdaptors) ||
      !bus_.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"))) {
    throw std::runtime_error("cannot start the watcher: " +
                             bus_.lastError().message().toStdString());
  }
}

FakeStatusNotifierWatcher::~FakeStatusNotifierWatcher() {
  QDBusConnection::disconnectFromBus(connectionName_);
}

void FakeWatcherAdaptor::setHostRegistered(bool registered) {
  hostRegistered_ = registered;
  if (registered) {
    emit StatusNotifierHostRegistered();
  } else {
    emit StatusNotifierHostUnregistered();
  }
}

void FakeWatcherAdaptor::RegisterStatusNotifierItem(const QString& service) {
  registeredItems_.append(service);
  emit StatusNotifierItemRegistered(service);
}

void FakeWatcherAdaptor::RegisterStatusNotifierHost(const QString& /*service*/) {
  setHostRegistered(true);
}

DBusSignalRecorder::DBusSignalRecorder(QDBusConnection bus, const QString& service,
                                       const QString& path, const QString& interface,
                                       const QString& name) {
  if (!bus.connect(service, path, interface, name, this, SLOT(record()))) {
    throw std::runtime_error("cannot follow the signal " + name.toStdString());
  }
}

void DBusSignalRecorder::record() {
  ++count_;
  emit received();
}

}  // namespace quellix::testing
