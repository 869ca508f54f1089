#include "ui/UiTestEnvironment.h"

#include <QAbstractAnimation>
#include <algorithm>

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFont>
#include <QPainter>
#include <QPixmap>
#include <QStyle>
#include <QStyleFactory>
#include <QWidget>

namespace quellix::ui::testing {
namespace {

class UiEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "ui-tests";
    static char* argv[] = {name, nullptr};
    application_ = new QApplication(argc, argv);
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QFont font(QString::fromLatin1(kFontFamily));
    font.setPixelSize(13);
    QApplication::setFont(font);
    QApplication::setPalette(QApplication::style()->standardPalette());
  }
  void TearDown() override {
    delete application_;
    application_ = nullptr;
  }

 private:
  QApplication* application_ = nullptr;
};

[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new UiEnvironment);

}  // namespace

void processEvents() {
  for (int round = 0; round < 3; ++round) {
    QApplication::processEvents();
  }
}

QImage render(QWidget& widget, qreal ratio) {
  processEvents();
  // A picture shows nothing under the pointer, wherever an earlier test left it.
  QList<QWidget*> all = widget.findChildren<QWidget*>();
  all.prepend(&widget);
  for (QWidget* each : all) {
    if (each->underMouse()) {
      QEvent leave(QEvent::Leave);
      QApplication::sendEvent(each, &leave);
    }
  }
  QPixmap pixmap(widget.size() * ratio);
  pixmap.setDevicePixelRatio(ratio);
  pixmap.fill(widget.palette().color(QPalette::Window));
  widget.render(&pixmap, {}, {}, QWidget::DrawChildren);
  return pixmap.toImage();
}

QString saveRenders(QWidget& widget, const QString& name) {
  const QString folder = QStringLiteral(QUELLIX_RENDER_DIR);
  QDir().mkpath(folder);
  for (const int ratio : {1, 2}) {
    render(widget, ratio).save(QStringLiteral("%1/%2@%3x.png").arg(folder, name).arg(ratio));
  }
  return folder;
}

void advanceAnimations(QObject& root, int milliseconds) {
  for (QAbstractAnimation* animation : root.findChildren<QAbstractAnimation*>()) {
    if (animation->state() == QAbstractAnimation::Running) {
      animation->setCurrentTime(
          std::min(animation->currentTime() + milliseconds, animation->totalDuration()));
    }
  }
  processEvents();
}

}  // namespace quellix::ui::testing
