#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QPoint>
#include <memory>
#include <string>
#include <thread>

#include "harness/DesktopSession.h"
#include "harness/LevelMeter.h"

namespace quellix {
namespace {

using testing::ChildProcess;
using testing::DesktopSession;
using testing::kHeardAboveDbfs;
using testing::kSilentBelowDbfs;
using testing::medianOfLast;
using testing::MonitorRecording;

constexpr auto kLevelWindow = std::chrono::milliseconds(100);
// parec delivers what the source plays only after about a second.
constexpr auto kRecorderSettling = std::chrono::milliseconds(1500);
constexpr auto kSilenceSettling = std::chrono::milliseconds(600);
constexpr auto kStartTimeout = std::chrono::seconds(20);
constexpr auto kExitTimeout = std::chrono::seconds(10);
// Where a panel at the top right of the screen would forward a click on the icon.
const QPoint kTrayClick(testing::XServer::kWidth - 40, 12);
const char* const kPanelTitle = "Quellix";

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "whole_program_tests";
  static char* argv[] = {name, nullptr};
  static auto* app = new QCoreApplication(argc, argv);
  return *app;
}

// The real program on a desktop of the test's own: a tray that forwards clicks, a display
// the panel shows on, and two applications playing, one to each sink.
class WholeProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    application();
    session_ = std::make_unique<DesktopSession>(DesktopSession::Options{});
    session_->play("com.example.alpha", "out1", 440.0);
    session_->play("com.example.beta", "out2", 660.0);
  }

  void TearDown() override {
    tray_.reset();
    quellix_.reset();
    session_.reset();
  }

  // An application's row, known by a word of its name, in either state.
  std::optional<testing::AccessibleUi::Element> row(const QString& word) {
    return session_->ui().showingButton(
        quellix_->pid(), word,
        {QStringLiteral(" stummschalten"), QStringLiteral(" wieder hörbar machen")});
  }

  bool panelShown() { return session_->display().visibleWindow(kPanelTitle).has_value(); }

  void clickButton(const QString& name) {
    std::optional<testing::AccessibleUi::Element> button;
    ASSERT_TRUE(session_->eventually([&] {
      return (button = session_->ui().showingButton(quellix_->pid(), name)).has_value();
    })) << "no button "
        << name.toStdString() << " on the screen";
    const QPoint centre = button->extents.center();
    session_->display().click(centre.x(), centre.y());
  }

  QString trayIcon() { return tray_->itemProperty(QStringLiteral("IconName")).toString(); }

  std::unique_ptr<DesktopSession> session_;
  std::unique_ptr<ChildProcess> quellix_;
  std::unique_ptr<testing::TrayHost> tray_;
};

TEST_F(WholeProgramTest, TrayPanelMuteSecondStartAndQuit) {
  quellix_ = session_->startQuellix();

  // The item reaches the tray with a picture to show.
  ASSERT_TRUE(session_->eventually(
      [&] { return session_->trayItem().has_value() || !quellix_->isRunning(); }, kStartTimeout));
  tray_ = session_->trayHost();
  ASSERT_TRUE(tray_) << "the program never registered a tray item";
  ASSERT_TRUE(session_->eventually([&] {
    return !trayIcon().isEmpty() || !tray_->iconPixmaps().empty();
  })) << "the tray item has no icon";
  EXPECT_EQ(trayIcon().toStdString(), "com.norvalin.quellix-speaker-symbolic");
  const auto newIcons = tray_->follow(tray_->itemPath(), testing::TrayHost::kItemInterface,
                                      QStringLiteral("NewIcon"));

  // A click on the icon opens the panel with a row for each player.
  ASSERT_TRUE(tray_->activate(kTrayClick));
  ASSERT_TRUE(session_->eventually([&] { return panelShown(); })) << "no panel appeared";
  const auto panel = session_->display().visibleWindow(kPanelTitle);
  ASSERT_TRUE(panel);
  EXPECT_GE(panel->x, 0);
  EXPECT_LE(panel->x + panel->width, testing::XServer::kWidth);
  std::optional<testing::AccessibleUi::Element> alphaRow;
  ASSERT_TRUE(session_->eventually([&] {
    alphaRow = row(QStringLiteral("alpha"));
    return alphaRow && row(QStringLiteral("beta"));
  })) << "the panel does not list both players";
  const QString alpha = alphaRow->name;
  EXPECT_EQ(alphaRow->description.toStdString(), (alpha + " stummschalten").toStdString());

  // A click on the first row silences that player at the output, and only that one.
  MonitorRecording alphaSink(session_->scratchDir() / "out1.raw", "out1.monitor");
  MonitorRecording betaSink(session_->scratchDir() / "out2.raw", "out2.monitor");
  std::this_thread::sleep_for(kRecorderSettling);
  const QPoint centre = alphaRow->extents.center();
  session_->display().click(centre.x(), centre.y());
  EXPECT_TRUE(session_->eventually([&] {
    return trayIcon() == "com.norvalin.quellix-speaker-muted-symbolic";
  })) << "the tray icon still shows "
      << trayIcon().toStdString();
  EXPECT_TRUE(session_->eventually([&] { return newIcons->count() > 0; }))
      << "the tray was not told of the new icon";
  std::this_thread::sleep_for(kSilenceSettling);
  const auto alphaLevels = alphaSink.stop(kLevelWindow);
  const auto betaLevels = betaSink.stop(kLevelWindow);
  ASSERT_FALSE(alphaLevels.empty());
  EXPECT_GT(alphaLevels.front(), kHeardAboveDbfs) << "the first player was not heard before";
  EXPECT_LT(medianOfLast(alphaLevels, 3), kSilentBelowDbfs) << "the first player is still heard";
  EXPECT_GT(medianOfLast(betaLevels, 3), kHeardAboveDbfs) << "the second player fell silent too";
  EXPECT_TRUE(session_->eventually([&] {
    const auto muted = session_->ui().showingButton(quellix_->pid(), alpha);
    return muted && muted->description == alpha + " wieder hörbar machen";
  }));

  // A second click makes it heard again, and the icon follows.
  clickButton(alpha);
  EXPECT_TRUE(session_->eventually([&] {
    const auto heard = session_->ui().showingButton(quellix_->pid(), alpha);
    return heard && heard->description == alpha + " stummschalten";
  })) << "the row still shows the player silenced";
  EXPECT_TRUE(session_->eventually([&] {
    return trayIcon() == "com.norvalin.quellix-speaker-symbolic";
  })) << "the tray icon still shows "
      << trayIcon().toStdString();

  // Another click on the icon closes the panel; a second start opens it again and ends.
  ASSERT_TRUE(tray_->activate(kTrayClick));
  EXPECT_TRUE(session_->eventually([&] { return !panelShown(); })) << "the panel stayed open";
  const auto second = session_->startQuellix();
  EXPECT_EQ(second->wait(kExitTimeout), 0) << "the second start did not hand over and end";
  EXPECT_TRUE(session_->eventually([&] { return panelShown(); }))
      << "the second start did not bring the panel back";
  EXPECT_TRUE(quellix_->isRunning());

  // "Beenden" ends the program.
  clickButton(QStringLiteral("Beenden"));
  EXPECT_EQ(quellix_->wait(kExitTimeout), 0);
}

}  // namespace
}  // namespace quellix
