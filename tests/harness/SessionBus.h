#pragma once

#include <memory>
#include <optional>
#include <string>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// A private D-Bus session bus, named in this process's DBUS_SESSION_BUS_ADDRESS so that every
// program the test starts uses it, and Qt's session connection too when this comes first.
// Services it activates see this process's environment as it was when the bus started. The
// daemon ends with the test, also when a test crashes it.
class SessionBus {
 public:
  SessionBus();
  ~SessionBus();
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;

  const std::string& address() const { return address_; }

 private:
  std::unique_ptr<ChildProcess> daemon_;
  std::string address_;
  std::optional<std::string> previousAddress_;
};

}  // namespace quellix::testing
