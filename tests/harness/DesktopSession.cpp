#include "harness/DesktopSession.h"

#include <stdlib.h>

#include <QCoreApplication>
#include <fstream>
#include <stdexcept>

#include "harness/TestSupport.h"

namespace quellix::testing {

DesktopSession::DesktopSession(Options options)
    : server_(std::make_unique<SoundServer>(SoundServer::Kind::pulseAudio)),
      x_(std::make_unique<XServer>()),
      // Started after the display and the server's folders are named: the accessibility bus
      // it starts on demand inherits them.
      sessionBus_(std::make_unique<SessionBus>()),
      bus_(connectPrivately()),
      watcher_(std::make_unique<StatusNotifierWatcher>()),
      ui_(std::make_unique<AccessibleUi>(bus_)),
      configHome_(server_->runtimeDir() / "config") {
  std::filesystem::create_directories(configHome_ / "quellix");
  std::ofstream(configHome_ / "quellix" / "preferences.json") << options.preferencesJson;
  ::setenv("XDG_CONFIG_HOME", configHome_.c_str(), 1);
  ::setenv("XDG_DATA_HOME", (scratchDir() / "data").c_str(), 1);
  ::setenv("QT_QPA_PLATFORM", "xcb", 1);
  ::setenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1", 1);
  if (!options.windowManager.empty()) {
    windowManager_ = std::make_unique<ChildProcess>(
        options.windowManager,
        ChildProcess::Options{.outputFile = (scratchDir() / "window-manager.log").string()});
    // Windows mapped before the manager took the screen would meet none.
    const auto managed = [] {
      try {
        return runProgram({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}).find("window id") !=
               std::string::npos;
      } catch (const std::exception&) {
        return false;
      }
    };
    if (!eventually(managed)) {
      throw std::runtime_error("the window manager did not take the display");
    }
  }
}

DesktopSession::~DesktopSession() {
  players_.clear();
  windowManager_.reset();
  ui_.reset();
  watcher_.reset();
  QDBusConnection::disconnectFromBus(bus_.name());
  sessionBus_.reset();
  x_.reset();
  server_.reset();
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON");
}

TestPlayerProcess& DesktopSession::play(const std::string& appID, const std::string& sink,
                                        double frequency) {
  const auto entry = scratchDir() / "data" / "applications" / (appID + ".desktop");
  writeFile(entry, "[Desktop Entry]\nType=Application\nName=" + appID.substr(appID.rfind('.') + 1) +
                       "\nExec=mpv\n");
  ::setenv("PULSE_SINK", sink.c_str(), 1);
  players_.push_back(std::make_unique<TestPlayerProcess>(TestPlayerProcess::Options{
      .name = appID, .appID = appID, .frequency = frequency, .launchedFrom = entry}));
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

std::unique_ptr<TrayHost> DesktopSession::trayHost() const {
  const auto item = trayItem();
  return item ? std::make_unique<TrayHost>(*item) : nullptr;
}

bool DesktopSession::eventually(const std::function<bool()>& condition,
                                std::chrono::milliseconds timeout) {
  return testing::eventually(
      condition, [] { QCoreApplication::processEvents(); }, timeout);
}

}  // namespace quellix::testing
