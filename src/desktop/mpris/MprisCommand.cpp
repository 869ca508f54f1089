#include "desktop/mpris/MprisCommand.h"

namespace quellix {
namespace {

constexpr std::uint32_t kSystemDefinedEventType = 14;
constexpr std::int16_t kAuxControlButtons = 8;
constexpr std::uint32_t kKeyDownState = 0x0A;

constexpr std::int32_t kPreviousKey = 18;
constexpr std::int32_t kPlayKey = 16;
constexpr std::int32_t kNextKey = 17;

}  // namespace

std::optional<MprisPlaybackStatus> parsePlaybackStatus(const std::string& text) {
  if (text == "Playing") {
    return MprisPlaybackStatus::playing;
  }
  if (text == "Paused") {
    return MprisPlaybackStatus::paused;
  }
  if (text == "Stopped") {
    return MprisPlaybackStatus::stopped;
  }
  return std::nullopt;
}

std::optional<MprisCommand> mprisCommandFor(CGEventTapLocation tap, const CGEvent& event) {
  if (tap != kCGHIDEventTap || event.type != kSystemDefinedEventType ||
      event.subtype != kAuxControlButtons) {
    return std::nullopt;
  }
  // Only the low 32 bits carry the key: code above, state in the next byte.
  const auto data1 = static_cast<std::uint32_t>(event.data1);
  const auto state = (data1 >> 8) & 0xFF;
  if (state != kKeyDownState) {
    return std::nullopt;
  }
  switch (static_cast<std::int32_t>(data1 >> 16)) {
    case kPreviousKey:
      return MprisCommand::previous;
    case kPlayKey:
      return MprisCommand::playPause;
    case kNextKey:
      return MprisCommand::next;
    default:
      return std::nullopt;
  }
}

std::optional<std::string> mprisMethodFor(MprisCommand command, const MprisPlayerState& player) {
  switch (command) {
    case MprisCommand::previous:
      return player.canGoPrevious ? std::optional<std::string>("Previous") : std::nullopt;
    case MprisCommand::next:
      return player.canGoNext ? std::optional<std::string>("Next") : std::nullopt;
    case MprisCommand::playPause:
      if (player.status == MprisPlaybackStatus::playing) {
        return player.canPause ? std::optional<std::string>("Pause") : std::nullopt;
      }
      return player.canPlay ? std::optional<std::string>("Play") : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace quellix
