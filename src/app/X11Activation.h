#pragma once

#include <QAbstractNativeEventFilter>
#include <functional>
#include <memory>

class QWidget;

namespace quellix {

// Asks the X11 window manager to give `window` the focus on the user's behalf, as a taskbar
// does. A tray click reaches us over D-Bus without an X event, so Qt's own request carries a
// stale time, and a window manager that prevents focus stealing refuses it when the user has
// used another window since. Does nothing on other platforms or without a window manager.
void activateForUser(QWidget& window);

// Tells when the X server gives a window the keyboard focus and takes it away, in the order
// the server sends it. Qt smooths the same news: it waits a moment after a focus loss for a
// focus-in to follow, so a window hidden and shown again within that moment hears of the old
// loss only after it showed, and never of the new focus.
class X11FocusFollower final : public QAbstractNativeEventFilter {
 public:
  // Nothing where the application does not run on X11.
  static std::unique_ptr<X11FocusFollower> forWindow(const QWidget& window,
                                                     std::function<void(bool focused)> changed);
  ~X11FocusFollower() override;

  bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

 private:
  X11FocusFollower(const QWidget& window, std::function<void(bool focused)> changed);

  const QWidget& window_;
  std::function<void(bool focused)> changed_;
};

}  // namespace quellix
