#pragma once

#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <string>

class QWidget;

namespace quellix {

// Opens each auxiliary window once per identifier; asked again, it brings that window forward.
// A closed window stays alive here until the owner removes it. Main thread only.
class WindowCoordinator {
 public:
  // Makes the window's content: a new widget without parent, of the window's fixed size.
  using ContentBuilder = std::function<std::unique_ptr<QWidget>()>;

  WindowCoordinator();
  ~WindowCoordinator();
  WindowCoordinator(const WindowCoordinator&) = delete;
  WindowCoordinator& operator=(const WindowCoordinator&) = delete;

  void show(const std::string& id, const QString& title, const ContentBuilder& content);

  // The owner's access to the map: the window held under `id`, or nullptr.
  QWidget* window(const std::string& id) const;
  // Forgets the window held under `id` (and destroys it), if any.
  void remove(const std::string& id);

 private:
  std::map<std::string, std::unique_ptr<QWidget>> windows_;
};

}  // namespace quellix
