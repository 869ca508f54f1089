#include "desktop/runtime/TerminationSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>

namespace quellix {
namespace {

int signalPipe[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the pipe; the event loop does the rest.
void onSignal(int number) {
  const auto byte = static_cast<char>(number);
  [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

}  // namespace

void quitOnTerminationSignals() {
  if (signalPipe[0] >= 0 || ::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    return;
  }
  auto* notifier =
      new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
  QObject::connect(notifier, &QSocketNotifier::activated, [] {
    char byte = 0;
    while (::read(signalPipe[0], &byte, 1) > 0) {
    }
    QCoreApplication::quit();
  });
  struct sigaction action {};
  action.sa_handler = &onSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

}  // namespace quellix
