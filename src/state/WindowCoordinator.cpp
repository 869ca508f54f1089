#include "state/WindowCoordinator.h"

namespace quellix {

void WindowCoordinator::show(const std::string& id, const WindowBuilder& build) {
  auto found = windows_.find(id);
  if (found == windows_.end()) {
    found = windows_.emplace(id, build()).first;
  }
  found->second->bringForward();
}

AuxiliaryWindow* WindowCoordinator::window(const std::string& id) const {
  const auto found = windows_.find(id);
  return found == windows_.end() ? nullptr : found->second.get();
}

void WindowCoordinator::remove(const std::string& id) {
  windows_.erase(id);
}

}  // namespace quellix
