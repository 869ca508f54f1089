#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "desktop/mpris/CGEvent.h"

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

// The transport buttons as a player understands them.
enum class MprisCommand { previous, playPause, next };

// The command a posted media-key event asks for: only a key-down of the auxiliary control
// buttons at the hardware tap has one.
std::optional<MprisCommand> mprisCommandFor(CGEventTapLocation tap, const CGEvent& event);

// The player's method that carries out `command`, or none when the player says it cannot.
std::optional<std::string> mprisMethodFor(MprisCommand command, const MprisPlayerState& player);

}  // namespace quellix
