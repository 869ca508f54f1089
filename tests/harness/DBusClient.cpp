#include "harness/DBusClient.h"

#include <QDBusVariant>
#include <atomic>
#include <stdexcept>

namespace quellix::testing {
namespace {

constexpr int kCallTimeoutMs = 5000;
const QString kBusDaemon = QStringLiteral("org.freedesktop.DBus");
const QString kBusDaemonPath = QStringLiteral("/org/freedesktop/DBus");

}  // namespace

QDBusConnection connectPrivately(const QString& address) {
  static std::atomic<int> connections{0};
  const QString name = QStringLiteral("quellix-test-%1").arg(++connections);
  const QString target =
      address.isEmpty() ? qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS") : address;
  return QDBusConnection::connectToBus(target, name);
}

QDBusMessage callAndWait(const QDBusConnection& bus, const QString& service, const QString& path,
                         const QString& interface, const QString& method,
                         const QVariantList& arguments) {
  auto message = QDBusMessage::createMethodCall(service, path, interface, method);
  message.setArguments(arguments);
  return bus.call(message, QDBus::BlockWithGui, kCallTimeoutMs);
}

QVariant propertyOf(const QDBusConnection& bus, const QString& service, const QString& path,
                    const QString& interface, const QString& name) {
  const QDBusMessage reply =
      callAndWait(bus, service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                  QStringLiteral("Get"), {interface, name});
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
    return {};
  }
  return reply.arguments().first().value<QDBusVariant>().variant();
}

QString nameOwnedBy(const QDBusConnection& bus, pid_t pid, const QString& prefix) {
  const QDBusMessage names =
      callAndWait(bus, kBusDaemon, kBusDaemonPath, kBusDaemon, QStringLiteral("ListNames"));
  if (names.type() != QDBusMessage::ReplyMessage) {
    return {};
  }
  for (const QString& name : names.arguments().first().toStringList()) {
    if (!name.startsWith(prefix)) {
      continue;
    }
    const QDBusMessage owner = callAndWait(bus, kBusDaemon, kBusDaemonPath, kBusDaemon,
                                           QStringLiteral("GetConnectionUnixProcessID"), {name});
    if (owner.type() == QDBusMessage::ReplyMessage &&
        owner.arguments().first().toUInt() == static_cast<unsigned>(pid)) {
      return name;
    }
  }
  return {};
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
