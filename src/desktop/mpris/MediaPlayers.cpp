#include "desktop/mpris/MediaPlayers.h"

namespace quellix {

void MediaPlayers::explainUnreachable() const {
  if (const auto reason = unreachableReason()) {
    logger_.error("The media keys cannot reach any player: " + *reason);
  }
}

}  // namespace quellix
