#include "app/QuellixApp.h"

#include <gtest/gtest.h>

#include <QKeyEvent>
#include <QTest>

#include "app/PanelHost.h"
#include "harness/AppStateFixture.h"
#include "tray/TrayItem.h"

namespace quellix {
namespace {

class QuellixAppTest : public testing::AppStateTest {
 protected:
  void SetUp() override {
    AppStateTest::SetUp();
    defaults->set("onboardingCompleted", true);
  }
  void TearDown() override {
    scene.reset();
    AppStateTest::TearDown();
  }

  QuellixApp& startScene() {
    scene = std::make_unique<QuellixApp>(environment());
    queue.drain();
    return *scene;
  }

  std::unique_ptr<QuellixApp> scene;
};

TEST_F(QuellixAppTest, TheTraySymbolFollowsTheNumberOfSilencedApplications) {
  addPlayingApp(100, "org.example.Music", "Music");
  addPlayingApp(200, "org.example.Video", "Video");
  QuellixApp& app = startScene();
  app.state().monitor().refresh();
  queue.drain();
  const auto& apps = app.state().monitor().apps().get();
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(app.tray().symbol(), "speaker.wave.2.fill");

  app.state().muter().toggle(apps[0]);
  queue.drain();
  EXPECT_EQ(app.tray().symbol(), "speaker.slash.fill");
  app.state().muter().toggle(apps[1]);
  queue.drain();
  EXPECT_EQ(app.tray().symbol(), "speaker.slash.fill");

  app.state().muter().unmuteAll();
  queue.drain();
  EXPECT_EQ(app.tray().symbol(), "speaker.wave.2.fill") << "back when the count returns to 0";

  app.state().muter().setVolume(0.5f, apps[0]);
  queue.drain();
  EXPECT_EQ(app.tray().symbol(), "speaker.wave.2.fill") << "turned down is not silenced";
}

TEST_F(QuellixAppTest, WithoutATrayThePanelIsAnOrdinaryWindowThatEscapeHides) {
  QuellixApp& app = startScene();
  if (app.tray().isHostAvailable()) {
    GTEST_SKIP() << "a tray host is running on this session bus";
  }
  EXPECT_FALSE(app.panel().isVisible()) << "the host may still answer";
  queue.advance(QuellixApp::kTrayGracePeriod);
  EXPECT_EQ(app.panel().mode(), PanelHost::Mode::window);
  EXPECT_TRUE(app.panel().isVisible());

  QTest::keyClick(&app.panel(), Qt::Key_Escape);
  EXPECT_FALSE(app.panel().isVisible());
  app.showPanel();
  EXPECT_TRUE(app.panel().isVisible()) << "a second start brings it back";
}

TEST_F(QuellixAppTest, ScrollingOnTheTrayIconStepsTheMasterVolume) {
  sim->setDeviceVolume(output, 0.5f);
  QuellixApp& app = startScene();
  queue.drain();
  ASSERT_DOUBLE_EQ(app.state().systemVolume().volume().get(), 0.5);

  emit app.tray().scrolled(1, Qt::Vertical);
  queue.drain();
  EXPECT_NEAR(app.state().systemVolume().volume().get(), 0.55, 1e-6);
  emit app.tray().scrolled(-2, Qt::Vertical);
  queue.drain();
  EXPECT_NEAR(app.state().systemVolume().volume().get(), 0.45, 1e-6);
  emit app.tray().scrolled(1, Qt::Horizontal);
  queue.drain();
  EXPECT_NEAR(app.state().systemVolume().volume().get(), 0.45, 1e-6) << "sideways does nothing";

  emit app.tray().scrolled(100, Qt::Vertical);
  queue.drain();
  EXPECT_DOUBLE_EQ(app.state().systemVolume().volume().get(), 1.0);
}

}  // namespace
}  // namespace quellix
