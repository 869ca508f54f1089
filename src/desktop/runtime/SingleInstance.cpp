#include "desktop/runtime/SingleInstance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace quellix {
namespace {

constexpr int kHandOverTimeoutMs = 5000;

}  // namespace

SingleInstance::SingleInstance(QObject* parent)
    : QObject(parent), control_(new RemoteControlAdaptor(this)) {}

SingleInstance::~SingleInstance() {
  release();
}

void SingleInstance::release() {
  if (!registered_) {
    return;
  }
  registered_ = false;
  QDBusConnection bus = QDBusConnection::sessionBus();
  // The name goes first, so that nobody finds it with no one answering behind it.
  bus.unregisterService(kServiceName);
  bus.unregisterObject(kObjectPath);
}

SingleInstance::Outcome SingleInstance::claim() {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    failure_ = bus.lastError().message();
    return Outcome::noSessionBus;
  }
  // The object goes up before the name, so a start racing this one never finds the name
  // without someone answering behind it.
  if (!bus.registerObject(
          kObjectPath, this,
          QDBusConnection::ExportScriptableSlots | QDBusConnection::ExportAdaptors)) {
    failure_ = bus.lastError().message();
    return Outcome::noSessionBus;
  }
  const auto reply =
      bus.interface()->registerService(kServiceName, QDBusConnectionInterface::DontQueueService,
                                       QDBusConnectionInterface::DontAllowReplacement);
  if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
    registered_ = true;
    return Outcome::primary;
  }
  bus.unregisterObject(kObjectPath);

  QDBusMessage call = QDBusMessage::createMethodCall(kServiceName, kObjectPath, kServiceName,
                                                     QStringLiteral("Activate"));
  const QDBusMessage answer = bus.call(call, QDBus::Block, kHandOverTimeoutMs);
  if (answer.type() == QDBusMessage::ErrorMessage) {
    failure_ = answer.errorMessage();
  }
  return Outcome::handedOver;
}

void SingleInstance::Activate() {
  emit activationRequested();
}

}  // namespace quellix
