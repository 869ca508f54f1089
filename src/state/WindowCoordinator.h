#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace quellix {

// One auxiliary window as the coordinator sees it. The views build it; destroying it closes
// the window, even from a click inside it.
class AuxiliaryWindow {
 public:
  virtual ~AuxiliaryWindow() = default;
  virtual void bringForward() = 0;
};

// Opens each auxiliary window once per identifier; asked again, it brings that window forward.
// A closed window stays alive here until the owner removes it. Main thread only.
class WindowCoordinator {
 public:
  using WindowBuilder = std::function<std::unique_ptr<AuxiliaryWindow>()>;

  void show(const std::string& id, const WindowBuilder& build);

  // The window held under `id`, or nullptr.
  AuxiliaryWindow* window(const std::string& id) const;
  // Forgets the window held under `id` (which closes it), if any.
  void remove(const std::string& id);

 private:
  std::map<std::string, std::unique_ptr<AuxiliaryWindow>> windows_;
};

}  // namespace quellix
