#pragma once

#include <QJsonObject>
#include <QPoint>
#include <QRect>
#include <QString>
#include <functional>
#include <memory>
#include <optional>

#include "desktop/runtime/SwayIpc.h"

namespace quellix {

// Places the panel next to the tray icon on sway, where the compositor alone decides where a
// window goes: the panel floats (its size is fixed), and sway is asked over its IPC socket to
// move it to the bar's edge below (or beside) the pointer.
//
// Anchoring it as a layer surface at the bar, as a bar's own pop-ups are, would be better, but
// Qt 6.4 has no public way to give a window's surface a role other than its own xdg_toplevel:
// the layer-shell integration (LayerShellQt) needs Qt's private Wayland headers, which Debian
// 12's qt6-wayland-dev does not ship.
class SwayPanelPlacement {
 public:
  // Where the panel goes, given the pointer (or the tray icon) and the area free of bars.
  using Placer = std::function<QPoint(QPoint anchor, const QRect& available, const QSize& size)>;

  static std::unique_ptr<SwayPanelPlacement> forSession();
  explicit SwayPanelPlacement(std::unique_ptr<SwayIpc> ipc);

  // A new opening: the pointer is looked up again.
  void restart() { pointer_.reset(); }
  // One try at placing the window titled `title` of this process, of `size`: where it went, or
  // none while sway has not mapped it yet (try again later) or refuses.
  std::optional<QPoint> place(const QString& title, const QSize& size, const Placer& placer);

  // A point inside the bar: the bar sits on the output's edge that the free area left most
  // room at; `pointer` gives the position along that edge.
  static QPoint barAnchor(const QRect& output, const QRect& usable, QPoint pointer);

 private:
  struct Found {
    qint64 conId = 0;
    QRect rect;
    QRect output;
    QRect usable;
  };
  std::optional<Found> find(const QString& title, const QSize& size);

  std::unique_ptr<SwayIpc> ipc_;
  std::optional<QPoint> pointer_;
};

}  // namespace quellix
