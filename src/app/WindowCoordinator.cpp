#include "app/WindowCoordinator.h"

#include <QGuiApplication>
#include <QMouseEvent>
#include <QScreen>
#include <QStyle>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

namespace quellix {
namespace {

// A window without a title bar of its own to grab still moves when the user drags any spot
// that no control takes: presses the children ignore bubble up to here.
class CoordinatedWindow final : public QWidget {
 public:
  CoordinatedWindow() : QWidget(nullptr, kFlags) {}

 protected:
  void mousePressEvent(QMouseEvent* event) override {
    if (event->button() == Qt::LeftButton && windowHandle() != nullptr &&
        windowHandle()->startSystemMove()) {
      event->accept();
      return;
    }
    QWidget::mousePressEvent(event);
  }

 private:
  // Closable, titled, but neither minimisable nor maximisable.
  static constexpr Qt::WindowFlags kFlags =
      Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::CustomizeWindowHint;
};

// The size the content asks for: its fixed size when it has one.
QSize contentSize(const QWidget& content) {
  return content.sizeHint()
      .expandedTo(content.minimumSize())
      .boundedTo(content.maximumSize())
      .expandedTo(QSize(1, 1));
}

void bringForward(QWidget& window) {
  window.setWindowState(window.windowState() & ~Qt::WindowMinimized);
  window.show();
  window.raise();
  window.activateWindow();
}

}  // namespace

WindowCoordinator::WindowCoordinator() = default;
WindowCoordinator::~WindowCoordinator() = default;

void WindowCoordinator::show(const std::string& id, const QString& title,
                             const ContentBuilder& content) {
  if (auto found = windows_.find(id); found != windows_.end()) {
    bringForward(*found->second);
    return;
  }

  auto window = std::make_unique<CoordinatedWindow>();
  window->setWindowTitle(title);
  std::unique_ptr<QWidget> view = content();
  const QSize size = contentSize(*view);
  auto* layout = new QVBoxLayout(window.get());
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  layout->addWidget(view.release());
  window->setFixedSize(size);

  if (const QScreen* screen = QGuiApplication::primaryScreen()) {
    window->setGeometry(
        QStyle::alignedRect(Qt::LeftToRight, Qt::AlignCenter, size, screen->availableGeometry()));
  }

  QWidget& shown = *window;
  windows_.emplace(id, std::move(window));
  bringForward(shown);
}

QWidget* WindowCoordinator::window(const std::string& id) const {
  const auto found = windows_.find(id);
  return found == windows_.end() ? nullptr : found->second.get();
}

void WindowCoordinator::remove(const std::string& id) {
  const auto found = windows_.find(id);
  if (found == windows_.end()) {
    return;
  }
  // The owner typically removes the window from a click inside it: deleting it now would pull
  // the button out from under its own signal.
  QWidget* window = found->second.release();
  windows_.erase(found);
  window->hide();
  window->deleteLater();
}

}  // namespace quellix
