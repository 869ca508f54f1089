#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "desktop/mpris/CGEvent.h"
#include "desktop/mpris/SystemDefinedEvent.h"

namespace quellix {

// Makes events the way the desktop's event interface does; either step may yield nothing.
class EventFactory {
 public:
  virtual ~EventFactory() = default;

  virtual std::optional<SystemDefinedEvent> otherEvent(NSEventType type, NSPoint location,
                                                       NSEventModifierFlags modifierFlags,
                                                       double timestamp, std::int64_t windowNumber,
                                                       const NSGraphicsContext* context,
                                                       std::int16_t subtype, std::int64_t data1,
                                                       std::int64_t data2) = 0;

  virtual std::optional<CGEvent> cgEvent(const SystemDefinedEvent& event) = 0;
};

// The factory every caller uses; nullptr puts the standard one back. Returns the previous one.
std::shared_ptr<EventFactory> installEventFactory(std::shared_ptr<EventFactory> factory);

// The standard factory: only the four kinds of "other" events can be made, and only an event
// stamped with a real point of uptime has a low-level form.
std::shared_ptr<EventFactory> makeStandardEventFactory();

std::optional<SystemDefinedEvent> NSEventOtherEvent(NSEventType type, NSPoint location,
                                                    NSEventModifierFlags modifierFlags,
                                                    double timestamp, std::int64_t windowNumber,
                                                    const NSGraphicsContext* context,
                                                    std::int16_t subtype, std::int64_t data1,
                                                    std::int64_t data2);
std::optional<CGEvent> NSEventCGEvent(const SystemDefinedEvent& event);

}  // namespace quellix
