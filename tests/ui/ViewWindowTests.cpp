#include "ui/ViewWindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QGuiApplication>
#include <QPointer>
#include <QPushButton>
#include <QScreen>

namespace quellix::ui {
namespace {

class ViewWindowTest : public ::testing::Test {
 protected:
  WindowCoordinator::WindowBuilder builder(const QString& title, const QString& name, QSize size) {
    return [this, title, name, size] {
      ++builds;
      auto content = std::make_unique<QWidget>();
      content->setObjectName(name);
      content->setFixedSize(size);
      return std::make_unique<ViewWindow>(title, std::move(content));
    };
  }

  QWidget* shown(const std::string& id) const {
    auto* held = static_cast<ViewWindow*>(coordinator.window(id));
    return held == nullptr ? nullptr : &held->widget();
  }

  static void deleteDeferred() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }

  WindowCoordinator coordinator;
  int builds = 0;
};

// A second show only brings the window forward; a closed window keeps its content for the next
// show; a removed one is built afresh.
TEST_F(ViewWindowTest, AWindowIsBuiltOnceUntilRemoved) {
  coordinator.show("about", builder("Über Quellix", "about", {340, 330}));
  QPointer<QWidget> window = shown("about");
  ASSERT_NE(window, nullptr);
  QPointer<QWidget> content = window->findChild<QWidget*>("about");
  coordinator.show("about", builder("Ein anderer Titel", "other", {100, 100}));
  EXPECT_EQ(shown("about"), window);
  EXPECT_EQ(window->windowTitle(), "Über Quellix");
  EXPECT_EQ(window->findChild<QWidget*>("other"), nullptr);

  window->close();
  deleteDeferred();
  ASSERT_NE(window, nullptr);
  EXPECT_FALSE(window->isVisible());
  coordinator.show("about", builder("Über Quellix", "about", {340, 330}));
  EXPECT_EQ(shown("about"), window);
  EXPECT_EQ(window->findChild<QWidget*>("about"), content);
  EXPECT_TRUE(window->isVisible());
  EXPECT_EQ(builds, 1);

  coordinator.remove("about");
  EXPECT_EQ(shown("about"), nullptr);
  deleteDeferred();
  EXPECT_EQ(window, nullptr);
  coordinator.show("about", builder("Über Quellix", "about", {340, 330}));
  EXPECT_EQ(builds, 2);
  ASSERT_NE(shown("about"), nullptr);
  EXPECT_TRUE(shown("about")->isVisible());
  coordinator.remove("nothing held");
}

// The onboarding's last button closes its own window: the window must outlive the click.
TEST_F(ViewWindowTest, WindowCanBeRemovedFromAClickInsideIt) {
  coordinator.show("onboarding", [this] {
    auto content = std::make_unique<QWidget>();
    content->setFixedSize(460, 440);
    auto* done = new QPushButton("Fertig", content.get());
    done->setObjectName("done");
    QObject::connect(done, &QPushButton::clicked, [this] { coordinator.remove("onboarding"); });
    return std::make_unique<ViewWindow>("Willkommen bei Quellix", std::move(content));
  });
  QPointer<QWidget> window = shown("onboarding");

  window->findChild<QPushButton*>("done")->click();

  EXPECT_EQ(shown("onboarding"), nullptr);
  EXPECT_FALSE(window->isVisible());
  deleteDeferred();
  EXPECT_EQ(window, nullptr);
}

TEST_F(ViewWindowTest, WindowsOfDifferentIdsAreIndependentFixedAndCentred) {
  coordinator.show("onboarding", builder("Willkommen bei Quellix", "onboarding", {460, 440}));
  coordinator.show("about", builder("Über Quellix", "about", {340, 330}));
  QWidget* onboarding = shown("onboarding");
  QWidget* about = shown("about");
  ASSERT_NE(onboarding, about);
  const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
  for (const auto& [window, size] :
       {std::pair{onboarding, QSize(460, 440)}, std::pair{about, QSize(340, 330)}}) {
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->minimumSize(), size);
    EXPECT_EQ(window->maximumSize(), size);
    EXPECT_FALSE(window->windowFlags() &
                 (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint));
    EXPECT_LE((window->geometry().center() - screen.center()).manhattanLength(), 2);
  }
}

}  // namespace
}  // namespace quellix::ui
