#include "desktop/runtime/GlobalShortcuts.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>

namespace quellix {
namespace {

constexpr uint kResponseSuccess = 0;

struct PortalShortcut {
  QString id;
  QVariantMap properties;
};

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut) {
  argument.beginStructure();
  argument << shortcut.id << shortcut.properties;
  argument.endStructure();
  return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut) {
  argument.beginStructure();
  argument >> shortcut.id >> shortcut.properties;
  argument.endStructure();
  return argument;
}

// The portal answers each request on a path made of our unique name and a token we choose.
QString requestPath(const QDBusConnection& bus, const QString& token) {
  QString sender = bus.baseService().mid(1);
  sender.replace(QLatin1Char('.'), QLatin1Char('_'));
  return QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
}

}  // namespace
}  // namespace quellix

Q_DECLARE_METATYPE(quellix::PortalShortcut)

namespace quellix {

GlobalShortcuts::GlobalShortcuts(QDBusConnection bus, std::shared_ptr<LogSink> logs)
    : bus_(std::move(bus)), logger_(std::move(logs), "GlobalShortcuts") {
  qDBusRegisterMetaType<PortalShortcut>();
  qDBusRegisterMetaType<QList<PortalShortcut>>();
}

void GlobalShortcuts::absent(const QString& why) {
  logger_.info("Keine globalen Tastenkürzel: " + why.toStdString());
}

void GlobalShortcuts::registerShortcuts(std::vector<Shortcut> shortcuts) {
  shortcuts_ = std::move(shortcuts);
  // The portal usually starts on the first call to it: a name the bus can activate counts.
  const QString portal = QString::fromLatin1(kPortalService);
  if (!bus_.isConnected() ||
      (!bus_.interface()->isServiceRegistered(portal) &&
       !bus_.interface()->activatableServiceNames().value().contains(portal))) {
    absent(QStringLiteral("kein Desktop-Portal auf dem Session-Bus"));
    return;
  }
  const QVariantMap options{
      {QStringLiteral("session_handle_token"), QStringLiteral("quellix_shortcuts")}};
  request(QStringLiteral("CreateSession"), {options}, SLOT(sessionCreated(uint, QVariantMap)));
}

void GlobalShortcuts::request(const QString& method, QVariantList arguments, const char* slot) {
  const QString token = QStringLiteral("quellix%1").arg(++requests_);
  const QString path = requestPath(bus_, token);
  // Subscribed before the call, so that an answer as fast as the reply is not missed.
  bus_.connect(kPortalService, path, kRequestInterface, QStringLiteral("Response"), this, slot);
  QVariantMap options = arguments.takeLast().toMap();
  options.insert(QStringLiteral("handle_token"), token);
  arguments << options;
  QDBusMessage call =
      QDBusMessage::createMethodCall(kPortalService, kPortalPath, kInterface, method);
  call.setArguments(arguments);
  auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, path, slot] {
    watcher->deleteLater();
    if (watcher->isError()) {
      bus_.disconnect(kPortalService, path, kRequestInterface, QStringLiteral("Response"), this,
                      slot);
      absent(watcher->error().message());
    }
  });
}

void GlobalShortcuts::sessionCreated(uint response, const QVariantMap& results) {
  if (response != kResponseSuccess) {
    absent(QStringLiteral("das Portal lehnte die Sitzung ab"));
    return;
  }
  // Documented as a string; some portals send an object path.
  const QVariant handle = results.value(QStringLiteral("session_handle"));
  sessionHandle_ = handle.userType() == qMetaTypeId<QDBusObjectPath>()
                       ? handle.value<QDBusObjectPath>().path()
                       : handle.toString();
  bus_.connect(kPortalService, kPortalPath, kInterface, QStringLiteral("Activated"), this,
               SLOT(shortcutActivated(QDBusMessage)));
  QList<PortalShortcut> offered;
  for (const auto& shortcut : shortcuts_) {
    offered << PortalShortcut{shortcut.id, {{QStringLiteral("description"), shortcut.description}}};
  }
  request(QStringLiteral("BindShortcuts"),
          {QVariant::fromValue(QDBusObjectPath(sessionHandle_)), QVariant::fromValue(offered),
           QString(), QVariantMap()},
          SLOT(shortcutsBound(uint, QVariantMap)));
}

void GlobalShortcuts::shortcutsBound(uint response, const QVariantMap&) {
  bound_ = response == kResponseSuccess;
  if (!bound_) {
    absent(QStringLiteral("die Tastenkürzel wurden nicht angenommen"));
  }
}

void GlobalShortcuts::shortcutActivated(const QDBusMessage& message) {
  const QVariantList arguments = message.arguments();
  if (arguments.size() < 2 || arguments[0].value<QDBusObjectPath>().path() != sessionHandle_) {
    return;
  }
  emit activated(arguments[1].toString());
}

}  // namespace quellix
