#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "desktop/mpris/MprisPlayerState.h"

namespace quellix {

// Which of the media players on the bus the transport buttons act on: the one playing; else
// the one whose playback state changed last; else the last one chosen. Fed with what the bus
// reports; knows nothing of the bus itself.
class MprisPlayerChoice {
 public:
  void appeared(const std::string& name);
  void left(const std::string& name);
  // What a player reported when first asked: its state, not a change of it.
  void statusRead(const std::string& name, MprisPlaybackStatus status);
  // A change the player announced; the same status again is no change.
  void statusChanged(const std::string& name, MprisPlaybackStatus status);

  // The player the buttons act on now, remembered as the last one chosen.
  std::optional<std::string> choose();
  std::optional<std::string> current() const;

  std::vector<std::string> players() const;
  std::optional<MprisPlaybackStatus> status(const std::string& name) const;

 private:
  struct Player {
    MprisPlaybackStatus status = MprisPlaybackStatus::stopped;
    std::uint64_t appearedAt = 0;
    std::uint64_t changedAt = 0;  // 0: never seen changing
  };

  std::map<std::string, Player> players_;
  std::optional<std::string> lastChosen_;
  std::uint64_t sequence_ = 0;
};

}  // namespace quellix
