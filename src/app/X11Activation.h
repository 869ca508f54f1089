#pragma once

class QWidget;

namespace quellix {

// Asks the X11 window manager to give `window` the focus on the user's behalf, as a taskbar
// does. A tray click reaches us over D-Bus without an X event, so Qt's own request carries a
// stale time, and a window manager that prevents focus stealing refuses it when the user has
// used another window since. Does nothing on other platforms or without a window manager.
void activateForUser(QWidget& window);

}  // namespace quellix
