#pragma once

#include <QPoint>
#include <QTimer>
#include <QWidget>
#include <memory>

namespace quellix {

class SwayPanelPlacement;

// Holds the panel: a frameless popup next to the tray icon where a tray exists, an ordinary
// window where none does. Closing either only hides it; the content lives on.
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
  bool event(QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void place();
  void placeOnSway();
  static bool compositorPlacesPopups();

  QWidget* content_;
  Mode mode_ = Mode::window;
  QPoint anchor_;
  bool placed_ = false;
  std::unique_ptr<SwayPanelPlacement> sway_;
  QTimer swayRetry_;
  int swayAttemptsLeft_ = 0;
};

}  // namespace quellix
