#pragma once

namespace quellix {

// Tray hosts disagree on what a Scroll delta means. Qt-based ones (lxqt-panel, Plasma) pass
// Qt's angle delta: 120 per wheel notch, positive up, and parts of that from a touchpad.
// GTK-based ones (xfce4-panel, waybar) send one small step per notch, negative up: 1, or 2
// from waybar on Wayland. A host shows which kind it is by its first full notch; before that,
// a step of 1 or 2 is taken for a GTK notch and anything larger for part of a Qt notch, which
// errs by a sliver at worst.
struct ScrollReading {
  static constexpr int kAngleDeltaPerNotch = 120;
  static constexpr int kLargestStep = 2;

  bool angleDeltas = false;  // the host has sent a full notch of angle delta
  int partialNotch = 0;      // angle delta short of a whole notch, positive up

  // Whole notches, positive up, that `delta` completes; remembers what it learns.
  int notches(int delta);
};

}  // namespace quellix
