#pragma once

#include <optional>
#include <string>

#include "desktop/mpris/MediaPlayers.h"

namespace quellix {

enum class MprisPlaybackStatus { stopped, paused, playing };

// "Playing", "Paused", "Stopped"; none for anything else.
std::optional<MprisPlaybackStatus> parsePlaybackStatus(const std::string& text);

// What a player says about itself at the moment of a press.
struct MprisPlayerState {
  MprisPlaybackStatus status = MprisPlaybackStatus::stopped;
  bool canGoPrevious = false;
  bool canGoNext = false;
  bool canPlay = false;
  bool canPause = false;
};

// The player's method that carries out `key`, or none when the player says it cannot.
std::optional<std::string> mprisMethodFor(MediaKey key, const MprisPlayerState& player);

}  // namespace quellix
