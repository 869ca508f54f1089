#include "desktop/mpris/MediaPlayers.h"

#include "support/Logger.h"

namespace quellix {

void MediaPlayers::explainUnreachable() const {
  if (const auto reason = unreachableReason()) {
    Logger("MediaKeys").error("The media keys cannot reach any player: " + *reason);
  }
}

}  // namespace quellix
