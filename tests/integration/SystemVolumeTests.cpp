#include <gtest/gtest.h>

#include "audio/pulse/PulseBackend.h"
#include "engine/volume/SystemVolumeController.h"
#include "harness/ChildProcess.h"
#include "harness/ServerTest.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

class SystemVolumeIntegrationTest : public testing::ServerTest {
 protected:
  int runQuellix(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {QUELLIX_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    testing::ChildProcess quellix(command,
                                  {.outputFile = (server->runtimeDir() / "quellix.log").string()});
    return quellix.wait(std::chrono::seconds(30)).value_or(-1);
  }
};

TEST_P(SystemVolumeIntegrationTest, VolsetSetsTheDefaultSinkAndRejectsBadNumbers) {
  // The session manager may still be settling its default: ask which sink it is.
  std::string target = server->pactl({"get-default-sink"});
  target.pop_back();
  const std::string other = target == "out1" ? "out2" : "out1";
  EXPECT_EQ(runQuellix({"--volset", "30"}), 0);
  EXPECT_EQ(server->volumePercent(target), 30);
  EXPECT_EQ(server->volumePercent(other), 100);
  for (const char* bad : {"100.5", "-1", " 5", "abc", "nan", "", "5 "}) {
    EXPECT_EQ(runQuellix({"--volset", bad}), 1) << bad;
  }
  EXPECT_EQ(server->volumePercent(target), 30);
}

TEST_P(SystemVolumeIntegrationTest, FollowsOutsideChangesAndTheDefaultSink) {
  connectBackend();
  server->pactl({"set-sink-volume", "out2", "40%"});
  server->pactl({"set-sink-mute", "out2", "1"});
  auto controller = SystemVolumeController::create(queue, *hardware, logs);
  ASSERT_TRUE(controller->isAdjustable().get());

  server->pactl({"set-sink-volume", "out1", "65%"});
  EXPECT_TRUE(eventually([&] { return std::abs(controller->volume().get() - 0.65) < 0.001; }));

  ASSERT_TRUE(server->setDefaultSink("out2"));
  EXPECT_TRUE(eventually([&] { return std::abs(controller->volume().get() - 0.40) < 0.001; }));
  EXPECT_TRUE(controller->isMuted().get());

  controller->setVolume(0.25);
  EXPECT_TRUE(eventually(
      [&] { return server->volumePercent("out2") == 25 && !controller->isMuted().get(); }));
  EXPECT_EQ(server->pactl({"get-sink-mute", "out2"}), "Mute: no\n");
  EXPECT_EQ(server->volumePercent("out1"), 65) << "the old default is left alone";
}

QUELLIX_ON_EVERY_BACKEND(SystemVolumeIntegrationTest);

}  // namespace
}  // namespace quellix
