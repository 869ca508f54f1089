#include "app/PanelHost.h"

#include <QApplication>
#include <QCursor>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QScreen>
#include <QVBoxLayout>
#include <QWindow>

#include "app/SwayPanelPlacement.h"
#include "app/X11Activation.h"

namespace quellix {
namespace {

// Space between the tray icon's click and the panel's edge.
constexpr int kAnchorGap = 6;
// A click on the tray icon takes the focus from the open panel before the tray says it was
// clicked: within this time of losing the focus that way, the click is the one that closed it.
constexpr qint64 kReopenGuardMilliseconds = 300;
// sway places a window only once it is mapped, a few frames after show().
constexpr int kSwayRetryMs = 40;
constexpr int kSwayAttempts = 50;

}  // namespace

PanelHost::PanelHost(std::unique_ptr<QWidget> content) : content_(content.release()) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSizeConstraint(QLayout::SetFixedSize);
  layout->addWidget(content_);
  content_->installEventFilter(this);
  setWindowTitle(QStringLiteral("Quellix"));
  setAttribute(Qt::WA_DeleteOnClose, false);
  setMode(Mode::window);
  // On X11 from the server's own focus events, in their order; elsewhere from Qt.
  x11Focus_ = X11FocusFollower::forWindow(*this, [this](bool focused) { followFocus(focused); });
  if (!x11Focus_) {
    QObject::connect(qGuiApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* focus) {
      followFocus(focus != nullptr && focus == windowHandle());
    });
  }
  if (compositorPlacesPopups()) {
    sway_ = SwayPanelPlacement::forSession();
  }
  swayRetry_.setInterval(kSwayRetryMs);
  connect(&swayRetry_, &QTimer::timeout, this, &PanelHost::placeOnSway);
}

PanelHost::~PanelHost() = default;

bool PanelHost::compositorPlacesPopups() {
  return QGuiApplication::platformName().startsWith(QStringLiteral("wayland"));
}

void PanelHost::setMode(Mode mode) {
  const bool wasVisible = isVisible();
  mode_ = mode;
  if (mode == Mode::window) {
    setWindowFlags(Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint |
                   Qt::CustomizeWindowHint);
  } else {
    // Also on Wayland, where a popup would need a parent surface the tray does not give us.
    setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
  }
  placed_ = false;
  if (wasVisible && mode == Mode::window) {
    present();
  }
}

void PanelHost::present(QPoint anchor) {
  anchor_ = anchor.isNull() ? QCursor::pos() : anchor;
  placed_ = false;
  if (sway_) {
    sway_->restart();
  }
  show();
  place();
  raise();
  // The server tells of the focus a shown window gets; Qt's view may still be that of the
  // panel before it last hid, and a loss it reports late belongs to that one.
  hasFocus_ = !x11Focus_ && QGuiApplication::focusWindow() != nullptr &&
              QGuiApplication::focusWindow() == windowHandle();
  activateWindow();
  if (mode_ == Mode::popup) {
    activateForUser(*this);
  }
  // Keyboard users start inside the panel: Tab walks its controls, Escape closes it.
  if (!content_->isAncestorOf(QApplication::focusWidget())) {
    focusNextChild();
  }
}

void PanelHost::toggle(QPoint anchor) {
  if (isVisible()) {
    dismiss();
  } else if (!hiddenByFocusLoss_.isValid() ||
             hiddenByFocusLoss_.hasExpired(kReopenGuardMilliseconds)) {
    present(anchor);
  }
}

void PanelHost::dismiss() {
  hide();
  // Hiding takes the focus away on the way: that was this dismissal, not another window.
  hiddenByFocusLoss_.invalidate();
}

void PanelHost::followFocus(bool focused) {
  if (focused) {
    hasFocus_ = true;
  } else if (hasFocus_) {
    hasFocus_ = false;
    hideOnFocusLoss();
  }
}

void PanelHost::hideOnFocusLoss() {
  // Also when one of our own windows takes the focus (the about window opened from the
  // panel): the panel is a menu, not a window to come back to.
  if (mode_ == Mode::popup && isVisible()) {
    hiddenByFocusLoss_.start();
    hide();
  }
}

void PanelHost::place() {
  adjustSize();
  if (mode_ == Mode::window) {
    if (!placed_) {
      if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        move(screen->availableGeometry().center() - rect().center());
      }
      placed_ = true;
    }
    return;
  }
  if (sway_) {
    swayAttemptsLeft_ = kSwayAttempts;
    placeOnSway();
    return;
  }
  const QScreen* screen = QGuiApplication::screenAt(anchor_);
  if (screen == nullptr) {
    screen = QGuiApplication::primaryScreen();
  }
  if (screen == nullptr) {
    return;
  }
  move(topLeftNextTo(anchor_, screen->availableGeometry(), size()));
  placed_ = true;
}

QPoint PanelHost::topLeftNextTo(QPoint anchor, const QRect& available, const QSize& size) {
  const bool opensDownwards = anchor.y() < available.center().y();
  QPoint topLeft(anchor.x() - size.width() / 2, opensDownwards
                                                    ? anchor.y() + kAnchorGap
                                                    : anchor.y() - kAnchorGap - size.height());
  topLeft.setX(std::clamp(topLeft.x(), available.left(),
                          std::max(available.left(), available.right() - size.width() + 1)));
  topLeft.setY(std::clamp(topLeft.y(), available.top(),
                          std::max(available.top(), available.bottom() - size.height() + 1)));
  return topLeft;
}

void PanelHost::placeOnSway() {
  if (!isVisible() || swayAttemptsLeft_ <= 0) {
    swayRetry_.stop();
    return;
  }
  --swayAttemptsLeft_;
  if (sway_->place(windowTitle(), size(), &PanelHost::topLeftNextTo)) {
    swayRetry_.stop();
    placed_ = true;
  } else if (!swayRetry_.isActive()) {
    swayRetry_.start();
  }
}

void PanelHost::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape) {
    dismiss();
    return;
  }
  QWidget::keyPressEvent(event);
}

bool PanelHost::eventFilter(QObject* watched, QEvent* event) {
  // The panel grows with its rows: keep it inside the screen next to its anchor.
  if (watched == content_ && event->type() == QEvent::Resize && isVisible()) {
    place();
  }
  return QWidget::eventFilter(watched, event);
}

}  // namespace quellix
