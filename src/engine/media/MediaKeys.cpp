#include "engine/media/MediaKeys.h"

#include "desktop/apps/ProcessInfo.h"
#include "desktop/mpris/Accessibility.h"
#include "desktop/mpris/CGEvent.h"
#include "desktop/mpris/EventFactory.h"
#include "desktop/mpris/EventPoster.h"

namespace quellix::MediaKeys {
namespace {

constexpr std::uint32_t kKeyDown = 0x0A00;
constexpr std::uint32_t kKeyUp = 0x0B00;
constexpr std::int16_t kAuxControlButtons = 8;
constexpr std::int64_t kNoData2 = -1;

void post(std::int32_t key, std::uint32_t state) {
  // The key code sits above the state; the 32-bit word travels sign-extended.
  const auto data1 = static_cast<std::int32_t>((static_cast<std::uint32_t>(key) << 16) | state);
  const auto event =
      NSEventOtherEvent(NSEventTypeSystemDefined, NSPoint{0, 0}, state, ProcessInfo::systemUptime(),
                        0, nullptr, kAuxControlButtons, std::int64_t{data1}, kNoData2);
  if (!event) {
    return;
  }
  if (const auto lowLevel = NSEventCGEvent(*event)) {
    CGEventPost(kCGHIDEventTap, *lowLevel);
  }
}

}  // namespace

void send(std::int32_t key) {
  if (!AXIsProcessTrusted()) {
    AXIsProcessTrustedWithOptions({.prompt = true});
  }
  post(key, kKeyDown);
  post(key, kKeyUp);
}

}  // namespace quellix::MediaKeys
