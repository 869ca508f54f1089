#pragma once

#include <optional>
#include <string>

namespace quellix {

// The transport buttons of the panel.
enum class MediaKey { previous, playPause, next };

// The media players of the desktop session, as the transport buttons reach them.
class MediaPlayers {
 public:
  virtual ~MediaPlayers() = default;

  // Acts on the current player, if there is one. Never waits for it, and never reports what a
  // player did; a press that cannot arrive only says why in the log.
  virtual void send(MediaKey key) = 0;

  // Why no player can be reached, or none when they can.
  virtual std::optional<std::string> unreachableReason() const = 0;

  // No permission guards the players: where they cannot be reached there is nobody to ask, so
  // this only says why in the log.
  void explainUnreachable() const;
};

}  // namespace quellix
