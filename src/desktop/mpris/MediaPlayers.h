#pragma once

#include <sys/types.h>
#include <memory>
#include <optional>
#include <string>

#include "support/Logger.h"

namespace quellix {

// The transport buttons of the panel.
enum class MediaKey { previous, playPause, next };

// The media players of the desktop session, as the transport buttons reach them.
class MediaPlayers {
 public:
  explicit MediaPlayers(std::shared_ptr<LogSink> logs) : logger_(std::move(logs), "MediaKeys") {}
  virtual ~MediaPlayers() = default;

  // Acts on the current player, if there is one. Never waits for it, and never reports what a
  // player did; a press that cannot arrive only says why in the log.
  virtual void send(MediaKey key) = 0;

  // The process of the player the buttons act on now, when there is one.
  virtual std::optional<pid_t> currentPlayerProcess() { return std::nullopt; }

  // Why no player can be reached, or none when they can.
  virtual std::optional<std::string> unreachableReason() const = 0;

  // No permission guards the players: where they cannot be reached there is nobody to ask, so
  // this only says why in the log.
  void explainUnreachable() const;

 private:
  Logger logger_;
};

}  // namespace quellix
