#include "harness/SessionBus.h"

#include <stdlib.h>

#include <stdexcept>

namespace quellix::testing {

SessionBus::SessionBus() {
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"setpriv", "--pdeathsig", "KILL", "dbus-daemon", "--session",
                               "--nofork", "--print-address"},
      ChildProcess::Options{.pipeStdout = true});
  // The daemon prints its address once it accepts connections.
  const auto address = daemon_->readLine(std::chrono::seconds(10));
  if (!address || address->empty()) {
    throw std::runtime_error("no session bus");
  }
  address_ = *address;
  if (const char* previous = ::getenv("DBUS_SESSION_BUS_ADDRESS")) {
    previousAddress_ = previous;
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

SessionBus::~SessionBus() {
  if (previousAddress_) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", previousAddress_->c_str(), 1);
  } else {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
}

}  // namespace quellix::testing
