#pragma once

#include <sys/types.h>

#include <QDBusConnection>
#include <QString>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "harness/AccessibleUi.h"
#include "harness/ChildProcess.h"
#include "harness/SessionBus.h"
#include "harness/SoundServer.h"
#include "harness/StatusNotifierWatcher.h"
#include "harness/TestPlayerProcess.h"
#include "harness/TrayHost.h"
#include "harness/XServer.h"

namespace quellix::testing {

// A desktop of the test's own for the whole program: a private sound server, a headless X
// display, a session bus with a tray watcher that says a host is there, and a private
// configuration folder. Needs a QCoreApplication in this process; sets this process's
// environment for the programs it starts.
class DesktopSession {
 public:
  struct Options {
    std::string preferencesJson = R"({"onboardingCompleted": true})";
    // A window manager to run on the display (its command line), none when empty.
    std::vector<std::string> windowManager;
  };

  explicit DesktopSession(Options options);
  ~DesktopSession();
  DesktopSession(const DesktopSession&) = delete;
  DesktopSession& operator=(const DesktopSession&) = delete;

  SoundServer& server() { return *server_; }
  const XServer& display() const { return *x_; }
  AccessibleUi& ui() { return *ui_; }
  const std::filesystem::path& scratchDir() const { return server_->runtimeDir(); }

  // A test player playing to `sink` ("out1" is the default), launched from a desktop entry
  // named by the last part of `appID`, as a user starts an application.
  TestPlayerProcess& play(const std::string& appID, const std::string& sink = "out1",
                          double frequency = 440.0);

  // The program, started as a user would; its output goes to a log in the scratch folder.
  std::unique_ptr<ChildProcess> startQuellix(const std::vector<std::string>& arguments = {});

  // The tray item the watcher heard of last, as "<bus name><path>", once there is one.
  std::optional<QString> trayItem() const;
  // A tray host for that item.
  std::unique_ptr<TrayHost> trayHost() const;

  // Polls `condition` while serving this process's D-Bus objects.
  bool eventually(const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::unique_ptr<SoundServer> server_;
  std::unique_ptr<XServer> x_;
  std::unique_ptr<SessionBus> sessionBus_;
  QDBusConnection bus_;
  std::unique_ptr<StatusNotifierWatcher> watcher_;
  std::unique_ptr<AccessibleUi> ui_;
  std::unique_ptr<ChildProcess> windowManager_;
  std::vector<std::unique_ptr<TestPlayerProcess>> players_;
  std::filesystem::path configHome_;
  int startedPrograms_ = 0;
};

}  // namespace quellix::testing
