#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "SoundServer.h"
#include "platform/hal/pulse/PulseBackend.h"
#include "services/SystemVolumeController.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

using testing::SoundServer;

// The sink's volume in percent, as pactl reports it for the first channel.
int sinkVolumePercent(const SoundServer& server, const std::string& sink) {
  const std::string output = server.pactl({"get-sink-volume", sink});
  const auto percent = output.find('%');
  const auto start = output.rfind(' ', percent);
  return std::stoi(output.substr(start + 1, percent - start - 1));
}

class SystemVolumeIntegrationTest : public ::testing::TestWithParam<SoundServer::Kind> {
 protected:
  void SetUp() override {
    previousSink = Logger::installSink(logs);
    server = std::make_unique<SoundServer>(GetParam());
  }
  void TearDown() override {
    installAudioBackend(nullptr);
    server.reset();
    Logger::installSink(previousSink);
  }

  int runQuellix(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {QUELLIX_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    testing::ChildProcess quellix(command,
                                  {.outputFile = (server->runtimeDir() / "quellix.log").string()});
    return quellix.wait(std::chrono::seconds(30)).value_or(-1);
  }

  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  std::shared_ptr<LogSink> previousSink;
  std::unique_ptr<SoundServer> server;
};

TEST_P(SystemVolumeIntegrationTest, VolsetSetsTheDefaultSinkAndRejectsBadNumbers) {
  // The session manager may still be settling its default: ask which sink it is.
  std::string target = server->pactl({"get-default-sink"});
  target.pop_back();
  const std::string other = target == "out1" ? "out2" : "out1";
  EXPECT_EQ(runQuellix({"--volset", "30"}), 0);
  EXPECT_EQ(sinkVolumePercent(*server, target), 30);
  EXPECT_EQ(sinkVolumePercent(*server, other), 100);
  for (const char* bad : {"100.5", "-1", " 5", "abc"}) {
    EXPECT_EQ(runQuellix({"--volset", bad}), 1) << bad;
  }
  EXPECT_EQ(sinkVolumePercent(*server, target), 30);
}

TEST_P(SystemVolumeIntegrationTest, FollowsOutsideChangesAndTheDefaultSink) {
  ManualQueue queue;
  auto backend = PulseBackend::create({});
  installAudioBackend(backend);
  server->pactl({"set-sink-volume", "out2", "40%"});
  server->pactl({"set-sink-mute", "out2", "1"});
  auto controller = SystemVolumeController::create(queue);
  auto pump = [&] { queue.drain(); };
  ASSERT_TRUE(controller->isAdjustable().get());

  server->pactl({"set-sink-volume", "out1", "65%"});
  EXPECT_TRUE(testing::eventually(
      [&] { return std::abs(controller->volume().get() - 0.65) < 0.001; }, pump));

  server->pactl({"set-default-sink", "out2"});
  EXPECT_TRUE(testing::eventually(
      [&] { return std::abs(controller->volume().get() - 0.40) < 0.001; }, pump));
  EXPECT_TRUE(controller->isMuted().get());

  controller->setVolume(0.25);
  EXPECT_TRUE(testing::eventually(
      [&] { return sinkVolumePercent(*server, "out2") == 25 && !controller->isMuted().get(); },
      pump));
  EXPECT_EQ(server->pactl({"get-sink-mute", "out2"}), "Mute: no\n");
  EXPECT_EQ(sinkVolumePercent(*server, "out1"), 65) << "the old default is left alone";
}

INSTANTIATE_TEST_SUITE_P(Servers, SystemVolumeIntegrationTest,
                         ::testing::Values(SoundServer::Kind::pulseAudio,
                                           SoundServer::Kind::pipeWire),
                         [](const auto& param) { return SoundServer::name(param.param); });

}  // namespace
}  // namespace quellix
