#pragma once

#include <cstdint>

#include "desktop/mpris/SystemDefinedEvent.h"

namespace quellix {

// Where in the event stream a posted event enters.
enum CGEventTapLocation : std::uint32_t {
  kCGHIDEventTap = 0,
  kCGSessionEventTap = 1,
  kCGAnnotatedSessionEventTap = 2,
};

// The low-level form of an event, as the event stream carries it.
struct CGEvent {
  std::uint32_t type = 0;
  NSPoint location;
  std::uint64_t flags = 0;
  std::uint64_t timestamp = 0;  // nanoseconds of system uptime
  std::int16_t subtype = 0;
  std::int64_t data1 = 0;
  std::int64_t data2 = 0;
};

}  // namespace quellix
