#include "ui/ViewWindow.h"

#include <QGuiApplication>
#include <QMouseEvent>
#include <QScreen>
#include <QStyle>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

namespace quellix::ui {
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

}  // namespace

ViewWindow::ViewWindow(const QString& title, std::unique_ptr<QWidget> content)
    : window_(new CoordinatedWindow()) {
  window_->setWindowTitle(title);
  const QSize size = contentSize(*content);
  auto* layout = new QVBoxLayout(window_);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  layout->addWidget(content.release());
  window_->setFixedSize(size);
  if (const QScreen* screen = QGuiApplication::primaryScreen()) {
    window_->setGeometry(
        QStyle::alignedRect(Qt::LeftToRight, Qt::AlignCenter, size, screen->availableGeometry()));
  }
}

ViewWindow::~ViewWindow() {
  window_->hide();
  window_->deleteLater();
}

void ViewWindow::bringForward() {
  window_->setWindowState(window_->windowState() & ~Qt::WindowMinimized);
  window_->show();
  window_->raise();
  window_->activateWindow();
}

}  // namespace quellix::ui
