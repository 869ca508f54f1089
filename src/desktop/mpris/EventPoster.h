#pragma once

#include <memory>
#include <optional>
#include <string>

#include "desktop/mpris/CGEvent.h"

namespace quellix {

// What delivers posted events to whoever they are meant for.
class EventPoster {
 public:
  virtual ~EventPoster() = default;

  virtual void post(CGEventTapLocation tap, const CGEvent& event) = 0;

  // Why posted events cannot arrive anywhere, or none when they can.
  virtual std::optional<std::string> unreachableReason() const { return std::nullopt; }
};

// The poster every caller uses; nullptr puts the desktop's own back (made on first use, on the
// main thread of a running Qt application). Returns the previous one.
std::shared_ptr<EventPoster> installEventPoster(std::shared_ptr<EventPoster> poster);
std::shared_ptr<EventPoster> currentEventPoster();

void CGEventPost(CGEventTapLocation tap, const CGEvent& event);

}  // namespace quellix
