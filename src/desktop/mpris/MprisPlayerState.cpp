#include "desktop/mpris/MprisPlayerState.h"

namespace quellix {

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

std::optional<std::string> mprisMethodFor(MediaKey key, const MprisPlayerState& player) {
  switch (key) {
    case MediaKey::previous:
      return player.canGoPrevious ? std::optional<std::string>("Previous") : std::nullopt;
    case MediaKey::next:
      return player.canGoNext ? std::optional<std::string>("Next") : std::nullopt;
    case MediaKey::playPause:
      if (player.status == MprisPlaybackStatus::playing) {
        return player.canPause ? std::optional<std::string>("Pause") : std::nullopt;
      }
      return player.canPlay ? std::optional<std::string>("Play") : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace quellix
