#include "desktop/mpris/EventPoster.h"

#include "desktop/mpris/MprisEventPoster.h"

namespace quellix {
namespace {

std::shared_ptr<EventPoster>& posterSlot() {
  static std::shared_ptr<EventPoster> poster;
  return poster;
}

}  // namespace

std::shared_ptr<EventPoster> installEventPoster(std::shared_ptr<EventPoster> poster) {
  return std::exchange(posterSlot(), std::move(poster));
}

std::shared_ptr<EventPoster> currentEventPoster() {
  auto& poster = posterSlot();
  if (!poster) {
    poster = std::make_shared<MprisEventPoster>();
  }
  return poster;
}

void CGEventPost(CGEventTapLocation tap, const CGEvent& event) {
  currentEventPoster()->post(tap, event);
}

}  // namespace quellix
