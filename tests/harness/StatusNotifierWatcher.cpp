#include "harness/StatusNotifierWatcher.h"

#include <stdexcept>

namespace quellix::testing {
namespace {

const QString kConnectionName = QStringLiteral("quellix-test-watcher");
const QString kDefaultItemPath = QStringLiteral("/StatusNotifierItem");

}  // namespace

StatusNotifierWatcherAdaptor::StatusNotifierWatcherAdaptor(QObject* object)
    : QDBusAbstractAdaptor(object) {}

void StatusNotifierWatcherAdaptor::RegisterStatusNotifierItem(const QString& serviceOrPath,
                                                              const QDBusMessage& message) {
  // Items name either their bus name (at the usual path) or their path (on the caller's
  // connection).
  const QString item = serviceOrPath.startsWith(QLatin1Char('/'))
                           ? message.service() + serviceOrPath
                           : serviceOrPath + kDefaultItemPath;
  registeredItems_.append(item);
  emit StatusNotifierItemRegistered(item);
}

void StatusNotifierWatcherAdaptor::RegisterStatusNotifierHost(const QString& /*service*/) {}

StatusNotifierWatcher::StatusNotifierWatcher(const QString& busAddress)
    : adaptor_(new StatusNotifierWatcherAdaptor(&object_)),
      bus_(QDBusConnection::connectToBus(busAddress, kConnectionName)) {
  if (!bus_.registerObject(QStringLiteral("/StatusNotifierWatcher"), &object_,
                           QDBusConnection::ExportAdaptors) ||
      !bus_.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"))) {
    throw std::runtime_error("cannot start the tray watcher: " +
                             bus_.lastError().message().toStdString());
  }
}

StatusNotifierWatcher::~StatusNotifierWatcher() {
  QDBusConnection::disconnectFromBus(kConnectionName);
}

}  // namespace quellix::testing
