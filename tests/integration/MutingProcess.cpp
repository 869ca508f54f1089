// Quellix's muting as the application runs it, for tests that end it from outside: the guard
// first, then the backend, the monitor and the mute controller on Qt's event loop. Obeys
// commands on standard input, one per line, and answers "ok" once the tap the command asks
// for exists ("error" when it does not come within ten seconds):
//
//   mute KEY           mutes the application with that key
//   volume KEY VALUE   sets its volume
//
//   quellix-muting-process PREFERENCES_DIR
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <iostream>
#include <sstream>

#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/TapGuard.h"
#include "desktop/runtime/QtMainQueue.h"
#include "desktop/runtime/TerminationSignals.h"
#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/MuteController.h"
#include "support/DefaultsStore.h"
#include "support/WallClock.h"

namespace {

using namespace quellix;

constexpr auto kCommandTimeout = std::chrono::seconds(10);
constexpr auto kPollInterval = std::chrono::milliseconds(20);

struct Muting {
  QtMainQueue& queue;
  std::shared_ptr<MuteController> controller;
  std::shared_ptr<AudioProcessMonitor> monitor;

  std::optional<AudioApp> app(const std::string& key) const {
    for (const auto& candidate : monitor->apps().get()) {
      if (candidate.key() == key) {
        return candidate;
      }
    }
    return std::nullopt;
  }

  // Serves the event loop until `condition` holds or the time is up.
  template <typename Condition>
  bool waitFor(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + kCommandTimeout;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      queue.runFor(kPollInterval);
    }
    return true;
  }

  bool obey(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    std::string key;
    words >> command >> key;
    if (!waitFor([&] { return app(key).has_value(); })) {
      return false;
    }
    if (command == "mute") {
      if (controller->mutedKeys().get().count(key) == 0) {
        controller->toggle(*app(key));
      }
    } else if (float volume = 1.0f; command == "volume" && words >> volume) {
      controller->setVolume(volume, *app(key));
    } else {
      return false;
    }
    return waitFor([&] { return controller->hasTap(key); });
  }
};

}  // namespace

int main(int argc, char** argv) {
  const auto logs = std::make_shared<StderrLogSink>();
  TapGuard::start(logs);
  if (argc < 2) {
    return 2;
  }
  QCoreApplication application(argc, argv);
  quitOnTerminationSignals();
  QtMainQueue queue;
  // The backend goes before the queue its thread posts to.
  AudioHardware hardware(PulseBackend::create({}, logs));
  {
    SystemWallClock clock;
    DefaultsStore defaults(std::filesystem::path(argv[1]) / "preferences.json", queue, logs);
    auto roots = Workspace::systemRoots();
    roots.dataDirs = {argv[1]};
    Muting muting{
        queue, MuteController::create(queue, hardware, defaults, clock, logs),
        AudioProcessMonitor::create(queue, hardware, std::make_shared<Workspace>(roots), logs)};
    muting.monitor->setOnChange(
        [&](const std::vector<AudioApp>& apps) { muting.controller->reconcile(apps); });
    muting.monitor->start();

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
      std::string line;
      if (!std::getline(std::cin, line)) {
        input.setEnabled(false);
        QCoreApplication::quit();
        return;
      }
      input.setEnabled(false);  // no second command while this one waits
      std::cout << (muting.obey(line) ? "ok" : "error") << std::endl;
      input.setEnabled(true);
    });
    std::cout << "ready" << std::endl;
    QCoreApplication::exec();
  }
  return 0;
}
