#include "desktop/mpris/EventFactory.h"

#include <cmath>
#include <utility>

namespace quellix {
namespace {

constexpr double kNanosecondsPerSecond = 1e9;

class StandardEventFactory final : public EventFactory {
 public:
  std::optional<SystemDefinedEvent> otherEvent(NSEventType type, NSPoint location,
                                               NSEventModifierFlags modifierFlags, double timestamp,
                                               std::int64_t windowNumber,
                                               const NSGraphicsContext* context,
                                               std::int16_t subtype, std::int64_t data1,
                                               std::int64_t data2) override {
    if (type < NSEventTypeAppKitDefined || type > NSEventTypePeriodic) {
      return std::nullopt;
    }
    return SystemDefinedEvent{.type = type,
                              .location = location,
                              .modifierFlags = modifierFlags,
                              .timestamp = timestamp,
                              .windowNumber = windowNumber,
                              .context = context,
                              .subtype = subtype,
                              .data1 = data1,
                              .data2 = data2};
  }

  std::optional<CGEvent> cgEvent(const SystemDefinedEvent& event) override {
    if (!std::isfinite(event.timestamp) || event.timestamp < 0) {
      return std::nullopt;
    }
    return CGEvent{.type = static_cast<std::uint32_t>(event.type),
                   .location = event.location,
                   .flags = event.modifierFlags,
                   .timestamp = static_cast<std::uint64_t>(
                       std::llround(event.timestamp * kNanosecondsPerSecond)),
                   .subtype = event.subtype,
                   .data1 = event.data1,
                   .data2 = event.data2};
  }
};

std::shared_ptr<EventFactory>& factorySlot() {
  static std::shared_ptr<EventFactory> factory = makeStandardEventFactory();
  return factory;
}

}  // namespace

std::shared_ptr<EventFactory> makeStandardEventFactory() {
  return std::make_shared<StandardEventFactory>();
}

std::shared_ptr<EventFactory> installEventFactory(std::shared_ptr<EventFactory> factory) {
  return std::exchange(factorySlot(), factory ? std::move(factory) : makeStandardEventFactory());
}

std::optional<SystemDefinedEvent> NSEventOtherEvent(NSEventType type, NSPoint location,
                                                    NSEventModifierFlags modifierFlags,
                                                    double timestamp, std::int64_t windowNumber,
                                                    const NSGraphicsContext* context,
                                                    std::int16_t subtype, std::int64_t data1,
                                                    std::int64_t data2) {
  return factorySlot()->otherEvent(type, location, modifierFlags, timestamp, windowNumber, context,
                                   subtype, data1, data2);
}

std::optional<CGEvent> NSEventCGEvent(const SystemDefinedEvent& event) {
  return factorySlot()->cgEvent(event);
}

}  // namespace quellix
