#include "app/QuellixMain.h"

#include <QCoreApplication>
#include <QDBusError>
#include <QDBusMessage>
#include <algorithm>

#include "app/ControlCommand.h"
#include "app/SpikeRunner.h"
#include "audio/BackendSelection.h"
#include "audio/pulse/TapGuard.h"
#include "desktop/runtime/JournalLogSink.h"
#include "desktop/runtime/QtMainQueue.h"
#include "desktop/runtime/TerminationSignals.h"
#include "desktop/runtime/Translations.h"
#include "support/Logger.h"

namespace quellix::QuellixMain {
namespace {

// The argument right after the first occurrence of `flag`, when there is one.
const std::string* argumentAfter(const std::vector<std::string>& arguments, const char* flag) {
  const auto found = std::find(arguments.begin(), arguments.end(), flag);
  if (found == arguments.end() || std::next(found) == arguments.end()) {
    return nullptr;
  }
  return &*std::next(found);
}

bool contains(const std::vector<std::string>& arguments, const char* flag) {
  return std::find(arguments.begin(), arguments.end(), flag) != arguments.end();
}

}  // namespace

Invocation dispatch(const std::vector<std::string>& arguments) {
  // A command for the running instance never starts one: a missing name or number is an
  // error it reports, not a reason to open the panel.
  for (const auto& [flag, mode] :
       {std::pair{"--mute", Mode::mute}, std::pair{"--unmute", Mode::unmute},
        std::pair{"--toggle", Mode::toggle}}) {
    if (contains(arguments, flag)) {
      const auto* target = argumentAfter(arguments, flag);
      return {mode, target ? *target : std::string()};
    }
  }
  if (contains(arguments, "--volume")) {
    const auto found = std::find(arguments.begin(), arguments.end(), "--volume");
    Invocation invocation{Mode::volume, {}, {}};
    if (std::next(found) != arguments.end()) {
      invocation.argument = *std::next(found);
      if (std::next(found, 2) != arguments.end()) {
        invocation.value = *std::next(found, 2);
      }
    }
    return invocation;
  }
  if (const auto* target = argumentAfter(arguments, "--spike")) {
    return {Mode::spike, *target};
  }
  if (contains(arguments, "--list")) {
    return {Mode::list, {}};
  }
  if (contains(arguments, "--taps")) {
    return {Mode::taps, {}};
  }
  if (const auto* volume = argumentAfter(arguments, "--volset")) {
    return {Mode::volset, *volume};
  }
  return {Mode::application, {}};
}

int main(int argc, char** argv, ApplicationRunner runApplication) {
  // Qt's D-Bus thread reports every failed call to its own listeners in a queued signal whose
  // argument types Qt does not register itself: unnamed, each failure prints two warnings,
  // into a script's error output when it is the command line that was refused.
  qRegisterMetaType<QDBusError>();
  qRegisterMetaType<QDBusMessage>();
  const std::shared_ptr<LogSink> logs = makeSystemLogSink();
  const Invocation invocation = dispatch(std::vector<std::string>(argv, argv + argc));
  // Taps outlive a program that ends; the guard removes them then. It must be forked while
  // this is the only thread.
  if (invocation.mode == Mode::spike || invocation.mode == Mode::application) {
    TapGuard::start(logs);
  }
  if (invocation.mode == Mode::application) {
    return runApplication(argc, argv, logs);
  }

  QCoreApplication application(argc, argv);
  QCoreApplication::setApplicationName("Quellix");
  installTranslations(application);
  switch (invocation.mode) {
    case Mode::mute:
      return ControlCommand::run(ControlCommand::Action::mute, invocation.argument);
    case Mode::unmute:
      return ControlCommand::run(ControlCommand::Action::unmute, invocation.argument);
    case Mode::toggle:
      return ControlCommand::run(ControlCommand::Action::toggle, invocation.argument);
    case Mode::volume:
      return ControlCommand::run(ControlCommand::Action::volume, invocation.argument,
                                 invocation.value);
    default:
      break;
  }
  quitOnTerminationSignals();
  QtMainQueue queue;
  // The backend's thread posts to the queue: it must be gone before the queue is.
  AudioHardware hardware(backendFromEnvironment(logs));

  const SpikeRunner::Context context{SpikeRunner::logPath, queue, hardware, logs};
  switch (invocation.mode) {
    case Mode::spike:
      return SpikeRunner::run(context, invocation.argument);
    case Mode::list:
      return SpikeRunner::list(context);
    case Mode::taps:
      return SpikeRunner::taps(context);
    case Mode::volset:
      return SpikeRunner::setVolume(context, invocation.argument);
    default:
      break;
  }
  return 0;
}

}  // namespace quellix::QuellixMain
