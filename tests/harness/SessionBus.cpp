#include "harness/SessionBus.h"

#include <stdlib.h>

#include <stdexcept>

namespace quellix::testing {

SessionBus::SessionBus() {
  daemon_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--print-address"},
      ChildProcess::Options{.pipeStdout = true});
  const auto address = daemon_->readLine(std::chrono::seconds(10));
  if (!address || address->empty()) {
    throw std::runtime_error("no session bus");
  }
  address_ = *address;
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

SessionBus::~SessionBus() {
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

}  // namespace quellix::testing
