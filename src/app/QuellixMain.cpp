#include "app/QuellixMain.h"

#include <QCoreApplication>
#include <algorithm>

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
    case Mode::application:
      break;
  }
  return 0;
}

}  // namespace quellix::QuellixMain
