#include "harness/DesktopSession.h"

#include <stdlib.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusVariant>
#include <fstream>

namespace quellix::testing {
namespace {

const QString kClientConnection = QStringLiteral("quellix-test-client");
const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");

}  // namespace

DesktopSession::DesktopSession(Options options)
    : server_(std::make_unique<SoundServer>(SoundServer::Kind::pulseAudio)),
      x_(std::make_unique<XServer>()),
      // Started after the display and the server's folders are named: the accessibility bus
      // it starts on demand inherits them.
      sessionBus_(std::make_unique<SessionBus>()),
      bus_(QDBusConnection::connectToBus(QString::fromStdString(sessionBus_->address()),
                                         kClientConnection)),
      watcher_(
          std::make_unique<StatusNotifierWatcher>(QString::fromStdString(sessionBus_->address()))),
      ui_(std::make_unique<AccessibleUi>(bus_)),
      configHome_(server_->runtimeDir() / "config") {
  std::filesystem::create_directories(configHome_ / "quellix");
  std::ofstream(configHome_ / "quellix" / "preferences.json") << options.preferencesJson;
  ::setenv("XDG_CONFIG_HOME", configHome_.c_str(), 1);
  ::setenv("QT_QPA_PLATFORM", "xcb", 1);
  ::setenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1", 1);
}

DesktopSession::~DesktopSession() {
  players_.clear();
  ui_.reset();
  watcher_.reset();
  QDBusConnection::disconnectFromBus(kClientConnection);
  sessionBus_.reset();
  x_.reset();
  server_.reset();
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
}

TestPlayerProcess& DesktopSession::play(const std::string& appID, const std::string& sink,
                                        double frequency) {
  ::setenv("PULSE_SINK", sink.c_str(), 1);
  players_.push_back(std::make_unique<TestPlayerProcess>(
      TestPlayerProcess::Options{.name = appID, .appID = appID, .frequency = frequency}));
  ::unsetenv("PULSE_SINK");
  return *players_.back();
}

std::unique_ptr<ChildProcess> DesktopSession::startQuellix(
    const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {QUELLIX_BINARY};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto log = scratchDir() / ("quellix-" + std::to_string(++startedPrograms_) + ".log");
  return std::make_unique<ChildProcess>(command, ChildProcess::Options{.outputFile = log.string()});
}

std::optional<QString> DesktopSession::trayItem() const {
  const QStringList items = watcher_->registeredItems();
  if (items.isEmpty()) {
    return std::nullopt;
  }
  return items.last();
}

std::pair<QString, QString> DesktopSession::splitItem(const QString& item) const {
  const auto slash = item.indexOf(QLatin1Char('/'));
  return {item.left(slash), item.mid(slash)};
}

QVariant DesktopSession::trayItemProperty(const QString& name) {
  const auto item = trayItem();
  if (!item) {
    return {};
  }
  const auto [service, path] = splitItem(*item);
  auto message = QDBusMessage::createMethodCall(
      service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
  message << kItemInterface << name;
  const QDBusMessage reply = bus_.call(message);
  if (reply.type() != QDBusMessage::ReplyMessage) {
    return {};
  }
  return reply.arguments().first().value<QDBusVariant>().variant();
}

bool DesktopSession::trayIconHasPixmap() {
  const QVariant value = trayItemProperty(QStringLiteral("IconPixmap"));
  if (!value.canConvert<QDBusArgument>()) {
    return false;
  }
  // a(iiay): width, height, ARGB32 data of each size.
  const auto argument = value.value<QDBusArgument>();
  bool present = false;
  argument.beginArray();
  while (!argument.atEnd()) {
    int width = 0;
    int height = 0;
    QByteArray data;
    argument.beginStructure();
    argument >> width >> height >> data;
    argument.endStructure();
    present = present || (width > 0 && height > 0 && data.size() == width * height * 4);
  }
  argument.endArray();
  return present;
}

bool DesktopSession::activateTrayItem(QPoint where) {
  const auto item = trayItem();
  if (!item) {
    return false;
  }
  const auto [service, path] = splitItem(*item);
  auto message =
      QDBusMessage::createMethodCall(service, path, kItemInterface, QStringLiteral("Activate"));
  message << where.x() << where.y();
  return bus_.call(message).type() == QDBusMessage::ReplyMessage;
}

std::unique_ptr<SignalCounter> DesktopSession::countNewIcon() {
  auto counter = std::make_unique<SignalCounter>();
  if (const auto item = trayItem()) {
    const auto [service, path] = splitItem(*item);
    bus_.connect(service, path, kItemInterface, QStringLiteral("NewIcon"), counter.get(),
                 SLOT(record()));
  }
  return counter;
}

bool DesktopSession::eventually(const std::function<bool()>& condition,
                                std::chrono::milliseconds timeout) {
  return testing::eventually(
      condition, [] { QCoreApplication::processEvents(); }, timeout);
}

}  // namespace quellix::testing
