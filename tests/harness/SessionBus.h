#pragma once

#include <memory>
#include <string>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// A private D-Bus session bus, named in this process's DBUS_SESSION_BUS_ADDRESS so that every
// program the test starts uses it. Services it activates see this process's environment as
// it was when the bus started.
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
};

}  // namespace quellix::testing
