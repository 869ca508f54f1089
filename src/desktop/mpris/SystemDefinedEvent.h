#pragma once

#include <cstdint>

namespace quellix {

using NSEventType = std::uint64_t;
using NSEventModifierFlags = std::uint64_t;

inline constexpr NSEventType NSEventTypeAppKitDefined = 13;
inline constexpr NSEventType NSEventTypeSystemDefined = 14;
inline constexpr NSEventType NSEventTypeApplicationDefined = 15;
inline constexpr NSEventType NSEventTypePeriodic = 16;

struct NSPoint {
  double x = 0;
  double y = 0;

  bool operator==(const NSPoint&) const = default;
};

// Drawing target an event may name; key events carry none.
struct NSGraphicsContext;

// An event of the kinds that are neither keyboard nor mouse events, with every field it was
// made with.
struct SystemDefinedEvent {
  NSEventType type = NSEventTypeSystemDefined;
  NSPoint location;
  NSEventModifierFlags modifierFlags = 0;
  double timestamp = 0;  // seconds of system uptime
  std::int64_t windowNumber = 0;
  const NSGraphicsContext* context = nullptr;
  std::int16_t subtype = 0;
  std::int64_t data1 = 0;
  std::int64_t data2 = 0;
};

}  // namespace quellix
