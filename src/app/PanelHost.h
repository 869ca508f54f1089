#pragma once

#include <QElapsedTimer>
#include <QPoint>
#include <QTimer>
#include <QWidget>
#include <memory>

namespace quellix {

class SwayPanelPlacement;
class X11FocusFollower;

// Holds the panel: a frameless window next to the tray icon where a tray exists, an ordinary
// window where none does. Closing either only hides it; the content lives on.
//
// The tray's panel is a tool window that hides itself when it loses the focus, not a Qt
// popup: a popup grabs the pointer, which a window manager answers by taking the focus back
// and closing it before the user's click arrives, and Qt leaves popups out of the windows an
// assistive technology can reach from the application.
class PanelHost final : public QWidget {
 public:
  enum class Mode { popup, window };

  explicit PanelHost(std::unique_ptr<QWidget> content);
  ~PanelHost() override;

  Mode mode() const { return mode_; }
  void setMode(Mode mode);

  // Shows the panel next to `anchor` (the tray icon's click position; null: the cursor), or
  // the window centred where it was.
  void present(QPoint anchor = {});
  void toggle(QPoint anchor = {});
  QWidget* content() const { return content_; }

  // The popup's top left corner next to `anchor` (below an icon in a top bar, above one in a
  // bottom bar), kept inside `available`.
  static QPoint topLeftNextTo(QPoint anchor, const QRect& available, const QSize& size);

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void place();
  void dismiss();
  void followFocus(bool focused);
  void hideOnFocusLoss();
  void placeOnSway();
  static bool compositorPlacesPopups();

  QWidget* content_;
  Mode mode_ = Mode::window;
  QPoint anchor_;
  bool placed_ = false;
  // Whether the panel's window has had the focus since it last showed and still has it.
  bool hasFocus_ = false;
  // Since the panel last hid because another window took the focus.
  QElapsedTimer hiddenByFocusLoss_;
  std::unique_ptr<X11FocusFollower> x11Focus_;
  std::unique_ptr<SwayPanelPlacement> sway_;
  QTimer swayRetry_;
  int swayAttemptsLeft_ = 0;
};

}  // namespace quellix
