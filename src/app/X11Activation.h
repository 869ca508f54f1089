#pragma once

#include <optional>

class QWidget;

namespace quellix {

// Asks the X11 window manager to give `window` the focus on the user's behalf, as a taskbar
// does. A tray click reaches us over D-Bus without an X event, so Qt's own request carries a
// stale time, and a window manager that prevents focus stealing refuses it when the user has
// used another window since. Does nothing on other platforms or without a window manager.
void activateForUser(QWidget& window);

// Whether the X server gives `window` the keyboard focus right now; nothing where there is no
// X server to ask. Qt reports a focus loss up to a moment late, after it has waited for a
// focus-in that did not come in time; the server's answer tells such news from the present.
std::optional<bool> holdsInputFocus(const QWidget& window);

}  // namespace quellix
