#pragma once

#include <memory>
#include <optional>
#include <string>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// A headless X server (Xvfb) on a display number nobody else uses, and the few things the
// tests do on it: find a mapped window, click.
class XServer {
 public:
  struct Geometry {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
  };

  static constexpr int kWidth = 1280;
  static constexpr int kHeight = 800;

  XServer();
  ~XServer();
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;

  // ":N", also placed in this process's DISPLAY for every program the test starts.
  const std::string& display() const { return display_; }

  // The viewable window whose title is exactly `title`, if one is mapped now.
  std::optional<Geometry> visibleWindow(const std::string& title) const;
  // The title of the window that has the focus, as the window manager says.
  std::optional<std::string> activeWindow() const;
  // Moves the pointer there and presses and releases the first button: real input, as a
  // user's.
  void click(int x, int y) const;
  // Presses and releases `keys` (xdotool's names: "Escape") in the focused window.
  void key(const std::string& keys) const;

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string display_;
};

}  // namespace quellix::testing
