#include "harness/FakeShortcutPortal.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>

namespace quellix::testing {
namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

QString escapedSender(const QDBusMessage& message) {
  QString sender = message.service().mid(1);
  return sender.replace(QLatin1Char('.'), QLatin1Char('_'));
}

QVariantMap optionsOf(const QDBusMessage& message) {
  return qdbus_cast<QVariantMap>(message.arguments().last());
}

}  // namespace

FakeShortcutPortal::FakeShortcutPortal(QDBusConnection bus) : bus_(std::move(bus)) {
  bus_.registerVirtualObject(kPath, this);
  bus_.interface()->registerService(kService);
}

FakeShortcutPortal::~FakeShortcutPortal() {
  bus_.unregisterService(kService);
  bus_.unregisterObject(kPath);
}

QString FakeShortcutPortal::introspect(const QString&) const {
  return {};
}

void FakeShortcutPortal::respond(const QDBusMessage& call, const QVariantMap& results) {
  const QString path =
      QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2")
          .arg(escapedSender(call), optionsOf(call).value("handle_token").toString());
  bus_.send(call.createReply(QVariant::fromValue(QDBusObjectPath(path))));
  QDBusMessage response = QDBusMessage::createSignal(
      path, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
  response << 0u << results;
  bus_.send(response);
}

bool FakeShortcutPortal::handleMessage(const QDBusMessage& message, const QDBusConnection&) {
  if (message.interface() != kInterface) {
    return false;
  }
  if (message.member() == QStringLiteral("CreateSession")) {
    session_ = QStringLiteral("/org/freedesktop/portal/desktop/session/%1/%2")
                   .arg(escapedSender(message),
                        optionsOf(message).value("session_handle_token").toString());
    respond(message, {{QStringLiteral("session_handle"), session_}});
    return true;
  }
  if (message.member() == QStringLiteral("BindShortcuts") && message.arguments().size() == 4) {
    const auto shortcuts = message.arguments()[1].value<QDBusArgument>();
    shortcuts.beginArray();
    while (!shortcuts.atEnd()) {
      QString id;
      QVariantMap properties;
      shortcuts.beginStructure();
      shortcuts >> id >> properties;
      shortcuts.endStructure();
      boundIds << id;
      boundDescriptions << properties.value(QStringLiteral("description")).toString();
    }
    shortcuts.endArray();
    respond(message, {});
    return true;
  }
  return false;
}

void FakeShortcutPortal::activate(const QString& id) {
  QDBusMessage signal = QDBusMessage::createSignal(kPath, kInterface, QStringLiteral("Activated"));
  signal << QVariant::fromValue(QDBusObjectPath(session_)) << id << qulonglong(0) << QVariantMap();
  bus_.send(signal);
}

}  // namespace quellix::testing
