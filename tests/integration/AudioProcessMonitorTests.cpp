#include "engine/monitor/AudioProcessMonitor.h"

#include <gtest/gtest.h>

#include <fstream>

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "harness/ChildProcess.h"
#include "harness/ServerTest.h"
#include "harness/TestPlayerProcess.h"
#include "harness/TestSupport.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

using testing::SoundServer;
using testing::TestPlayerProcess;

class AudioProcessMonitorIntegrationTest : public testing::ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    connectBackend();
    desktopFile = dataDir.path() / "applications" / "org.quellix.TestApp.desktop";
    std::filesystem::create_directories(desktopFile.parent_path());
    std::ofstream(desktopFile) << "[Desktop Entry]\nType=Application\nName=Test App\n"
                                  "Name[de]=Testanwendung\nExec=quellix-test-app\n"
                                  "Icon=org.quellix.TestApp\n";
    auto roots = Workspace::systemRoots();
    roots.dataDirs = {dataDir.path()};
    roots.locale = "de_DE.UTF-8";
    monitor =
        AudioProcessMonitor::create(queue, *hardware, std::make_shared<Workspace>(roots), logs);
    monitor->start();
  }

  void TearDown() override {
    monitor.reset();
    ServerTest::TearDown();
  }

  // Started as a launcher starts an application: the launched process carries its desktop
  // file in its environment; its child does the playing (and keeps our stdin open).
  std::unique_ptr<testing::ChildProcess> launchApplication() {
    std::vector<std::string> command = {
        "sh", "-c",
        "exec env GIO_LAUNCHED_DESKTOP_FILE='" + desktopFile.string() +
            "' GIO_LAUNCHED_DESKTOP_FILE_PID=$$ sh -c '\"$@\" <&3 & wait' player \"$@\" 3<&0",
        "launcher"};
    for (const auto& word : TestPlayerProcess::arguments({})) {
      command.push_back(word);
    }
    return std::make_unique<testing::ChildProcess>(
        command, testing::ChildProcess::Options{.pipeStdin = true, .outputFile = "/dev/null"});
  }

  const AudioApp* appWithID(pid_t pid) {
    for (const auto& app : monitor->apps().get()) {
      if (app.id == pid) {
        return &app;
      }
    }
    return nullptr;
  }

  std::string listed() {
    std::string text;
    for (const auto& app : monitor->apps().get()) {
      text +=
          app.name + " [" + app.bundleID.value_or("-") + "] pid=" + std::to_string(app.id) + "; ";
    }
    return text;
  }

  testing::TemporaryDirectory dataDir;
  std::filesystem::path desktopFile;
  std::shared_ptr<AudioProcessMonitor> monitor;
};

TEST_P(AudioProcessMonitorIntegrationTest, ListsTheApplicationWhoseChildPlays) {
  auto application = launchApplication();
  ASSERT_TRUE(eventually([&] { return appWithID(application->pid()) != nullptr; }))
      << "listed: " << listed() << " launched: " << application->pid();
  const AudioApp app = *appWithID(application->pid());
  EXPECT_EQ(app.name, "Testanwendung");
  EXPECT_EQ(app.bundleID, "org.quellix.TestApp");
  EXPECT_EQ(app.icon.themeName, "org.quellix.TestApp");
  ASSERT_EQ(app.processObjectIDs.size(), 1u);
  const SInt32 player =
      read<SInt32>(*hardware, app.processObjectIDs[0], globalAddress(kAudioProcessPropertyPID), 0);
  EXPECT_NE(player, application->pid()) << "the child's process object, under the parent";
  EXPECT_EQ(monitor->apps().get().size(), 1u);
}

TEST_P(AudioProcessMonitorIntegrationTest, TheListFollowsPlayersStartingCorkingAndStopping) {
  auto application = launchApplication();
  ASSERT_TRUE(eventually([&] { return monitor->apps().get().size() == 1; }));
  {
    TestPlayerProcess other({.appID = "org.example.Other"});
    ASSERT_TRUE(eventually([&] { return monitor->apps().get().size() == 2; })) << listed();
    EXPECT_TRUE(appWithID(other.pid()) != nullptr);
    other.command("cork");
    ASSERT_TRUE(eventually([&] { return appWithID(other.pid()) == nullptr; }))
        << "an application whose audio is all idle is not listed";
    other.command("uncork");
    ASSERT_TRUE(eventually([&] { return appWithID(other.pid()) != nullptr; }));
  }
  ASSERT_TRUE(eventually([&] { return monitor->apps().get().size() == 1; }));
  application.reset();
  EXPECT_TRUE(eventually([&] { return monitor->apps().get().empty(); }));
}

QUELLIX_ON_EVERY_BACKEND(AudioProcessMonitorIntegrationTest);

}  // namespace
}  // namespace quellix
