#pragma once

#include <QString>
#include <QWidget>
#include <memory>

#include "state/WindowCoordinator.h"

namespace quellix::ui {

// An auxiliary window around one view: titled, of the view's fixed size, centred on the
// screen, dragged by any spot no control takes.
class ViewWindow final : public AuxiliaryWindow {
 public:
  ViewWindow(const QString& title, std::unique_ptr<QWidget> content);
  // Hides the window and deletes it once control is back in the event loop: the owner often
  // drops it from a click inside it.
  ~ViewWindow() override;
  ViewWindow(const ViewWindow&) = delete;
  ViewWindow& operator=(const ViewWindow&) = delete;

  void bringForward() override;
  QWidget& widget() const { return *window_; }

 private:
  QWidget* window_;
};

}  // namespace quellix::ui
