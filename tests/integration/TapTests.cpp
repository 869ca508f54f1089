#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/ServerTest.h"
#include "harness/TestPlayerProcess.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

using std::chrono::milliseconds;
using testing::describeLevels;
using testing::kHalfGainDb;
using testing::kLevelToleranceDb;
using testing::kSilentBelowDbfs;
using testing::kToneDbfs;
using testing::MonitorRecording;
using testing::TestPlayerProcess;

class TapTest : public testing::ServerTest {
 protected:
  std::vector<AudioObjectID> objectsOf(pid_t pid) {
    std::vector<AudioObjectID> objects;
    for (const AudioObjectID object : readProcessList(*hardware)) {
      if (read<SInt32>(*hardware, object, globalAddress(kAudioProcessPropertyPID), 0) == pid) {
        objects.push_back(object);
      }
    }
    return objects;
  }

  // A tap over the player's process objects, once the backend lists them.
  std::unique_ptr<ProcessMuteTap> tapPlayer(const TestPlayerProcess& player, float gain) {
    connectBackend();
    EXPECT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
    auto tap =
        std::make_unique<ProcessMuteTap>(*hardware, "Player", objectsOf(player.pid()), gain, logs);
    // The tap's calls return before its sound flows.
    EXPECT_TRUE(
        testing::eventually([&] { return gain == 0 || server->level() > kSilentBelowDbfs; }));
    return tap;
  }

  bool nothingOfOursLeft() {
    return testing::eventually([&] { return server->holdsNothingOfOurs(); });
  }
};

TEST_P(TapTest, SpikeSilencesThePlayerForTenSecondsAndLeavesNothingBehind) {
  TestPlayerProcess player({});
  ASSERT_NEAR(server->level(), kToneDbfs, kLevelToleranceDb) << server->lastLevels();
  MonitorRecording recording(server->runtimeDir() / "spike.raw", "out1.monitor");
  std::this_thread::sleep_for(milliseconds(1500));
  testing::ChildProcess spike({QUELLIX_BINARY, "--spike", std::to_string(player.pid())},
                              {.outputFile = (server->runtimeDir() / "spike.log").string()});
  EXPECT_EQ(spike.wait(std::chrono::seconds(30)), 0);
  std::this_thread::sleep_for(milliseconds(2500));
  const auto levels = recording.stop();  // 250 ms windows
  // The longest silent stretch: the tap's ten seconds, less connecting and tearing down.
  std::size_t longest = 0;
  for (std::size_t run = 0, i = 0; i < levels.size(); ++i) {
    run = levels[i] < kSilentBelowDbfs ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  EXPECT_GE(longest, 36u) << describeLevels(levels);
  EXPECT_NEAR(testing::medianOfLast(levels, 6), kToneDbfs, kLevelToleranceDb)
      << describeLevels(levels);
  EXPECT_TRUE(player.isRunning());
  EXPECT_TRUE(nothingOfOursLeft());
}

TEST_P(TapTest, AGainScalesThePlayerWithoutARebuild) {
  TestPlayerProcess player({});
  const auto tap = tapPlayer(player, 0.5f);
  const AudioObjectID tapID = tap->tapID();
  // Each gain in turn, and the level it leaves at the output.
  const struct {
    float gain;
    double level;
  } kSteps[] = {{0.5f, kToneDbfs + kHalfGainDb},
                {1.0f, kToneDbfs},
                {0.0f, kSilentBelowDbfs},
                {0.5f, kToneDbfs + kHalfGainDb}};
  for (const auto& [gain, level] : kSteps) {
    tap->setGain(gain);
    if (gain == 0.0f) {
      EXPECT_LT(server->level(), level) << server->lastLevels();
    } else {
      EXPECT_NEAR(server->level(), level, kLevelToleranceDb)
          << gain << ": " << server->lastLevels();
    }
  }
  EXPECT_EQ(tap->tapID(), tapID);
  tap->invalidate();
  EXPECT_NEAR(server->level(), kToneDbfs, kLevelToleranceDb) << server->lastLevels();
  EXPECT_TRUE(nothingOfOursLeft());
}

TEST_P(TapTest, APlayerAtItsDefaultBufferingIsNotTakenAtOnce) {
  // paplay keeps two seconds queued: a tap sink that rendered them at once would leave the IO
  // path without sound for as long.
  const auto tone = server->runtimeDir() / "tone.wav";
  testing::runProgram({"sox", "-n", "-r", "48000", "-c", "2", tone.string(), "synth", "30", "sine",
                       "440", "vol", "0.5"});
  testing::ChildProcess player({"paplay", tone.string()}, {});
  connectBackend();
  ASSERT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
  ProcessMuteTap tap(*hardware, "Player", objectsOf(player.pid()), 0.5f, logs);
  std::istringstream sinks(server->pactl({"list", "sinks"}));
  std::string line;
  while (std::getline(sinks, line) && line.find("Name: quellix.tap.") == std::string::npos) {
  }
  while (std::getline(sinks, line) && line.find("\tLatency: ") == std::string::npos) {
  }
  EXPECT_LT(std::stol(line.substr(line.find(':') + 1)), 100000) << line;  // µs
  EXPECT_NEAR(server->level(), kToneDbfs + kHalfGainDb, kLevelToleranceDb) << server->lastLevels();
}

TEST_P(TapTest, AStreamOpenedAnewWhileTappedIsSilentToo) {
  TestPlayerProcess player({});
  const auto tap = tapPlayer(player, 0.0f);
  ASSERT_LT(server->level(), kSilentBelowDbfs) << server->lastLevels();
  player.command("reopen");
  EXPECT_LT(server->level("out1", milliseconds(2000)), kSilentBelowDbfs) << server->lastLevels();
  tap->invalidate();
  EXPECT_NEAR(server->level(), kToneDbfs, kLevelToleranceDb) << server->lastLevels();
}

TEST_P(TapTest, AKilledSpikeLeavesThePlayerAudibleAndNothingBehind) {
  TestPlayerProcess player({});
  {
    testing::ChildProcess spike({QUELLIX_BINARY, "--spike", std::to_string(player.pid())},
                                {.outputFile = (server->runtimeDir() / "spike.log").string()});
    std::this_thread::sleep_for(milliseconds(3000));
    ASSERT_LT(server->level(), kSilentBelowDbfs) << server->lastLevels();
    spike.signal(SIGKILL);
    spike.wait(std::chrono::seconds(5));
  }
  // Its guard cleans up after it; the session manager may still be relinking the player.
  EXPECT_TRUE(nothingOfOursLeft());
  EXPECT_TRUE(eventually([&] { return std::abs(server->level() - kToneDbfs) < kLevelToleranceDb; }))
      << server->lastLevels();
}

// An application that ends while muted, under a Quellix that then quits or is killed, plays on
// the default output at its next start, and WirePlumber's state names no node of ours (each
// is named quellix.<kind>.<uuid>).
TEST_P(TapTest, WirePlumberRemembersNothingOfOurs) {
  if (!isNative()) {
    GTEST_SKIP() << "WirePlumber's state is kept clean by the native backend";
  }
  const TestPlayerProcess::Options app{.name = "Remembered Player", .appID = "org.example.Kept"};
  for (const bool killed : {false, true}) {
    {
      TestPlayerProcess player(app);
      testing::ChildProcess spike({QUELLIX_BINARY, "--spike", std::to_string(player.pid())},
                                  {.outputFile = (server->runtimeDir() / "spike.log").string()});
      ASSERT_TRUE(eventually([&] { return server->level() < kSilentBelowDbfs; }))
          << server->lastLevels();
      player.kill();
      if (killed) {
        spike.signal(SIGKILL);
      }
      EXPECT_TRUE(spike.wait(std::chrono::seconds(30)).has_value());
    }
    TestPlayerProcess again(app);
    EXPECT_NEAR(server->level(), kToneDbfs, kLevelToleranceDb)
        << (killed ? "killed: " : "quit: ") << server->lastLevels();
    // WirePlumber writes its state a moment after a change.
    std::this_thread::sleep_for(milliseconds(1500));
    const auto stateDir = server->runtimeDir() / ".local" / "state" / "wireplumber";
    for (const auto& file : std::filesystem::directory_iterator(stateDir)) {
      std::ifstream in(file.path());
      const std::string text((std::istreambuf_iterator<char>(in)), {});
      EXPECT_EQ(text.find("quellix."), std::string::npos) << file.path() << ":\n" << text;
    }
  }
}

// The tap's own contract, on the sound server instead of the simulator.
TEST_P(TapTest, CreatesListsAndRemovesItsObjects) {
  TestPlayerProcess player({});
  const auto owned = tapPlayer(player, 0.0f);
  ProcessMuteTap& tap = *owned;
  UInt32 size = 0;
  const auto tapList = globalAddress(kAudioHardwarePropertyTapList);
  ASSERT_EQ(hardware->AudioObjectGetPropertyDataSize(1, &tapList, 0, nullptr, &size), 0);
  EXPECT_EQ(size, sizeof(AudioObjectID));
  const std::string uid =
      read(*hardware, tap.aggregateID(), globalAddress(kAudioDevicePropertyDeviceUID), CFString())
          .str();
  EXPECT_EQ(uid.rfind(ProcessMuteTap::kAggregateUIDPrefix, 0), 0u);
  const auto devices = readDeviceList(*hardware);
  EXPECT_NE(std::find(devices.begin(), devices.end(), tap.aggregateID()), devices.end());

  tap.invalidate();
  logs->clear();
  tap.invalidate();
  EXPECT_TRUE(logs->entries().empty()) << "a second invalidate is no error";
  ASSERT_EQ(hardware->AudioObjectGetPropertyDataSize(1, &tapList, 0, nullptr, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_TRUE(nothingOfOursLeft());

  // A process that is gone: no tap, and nothing left behind.
  EXPECT_THROW(ProcessMuteTap(*hardware, "Gone", {999999}, 0.0f, logs), TextError);
  EXPECT_TRUE(server->holdsNothingOfOurs());
}

TEST_P(TapTest, TheSweepRemovesAggregatesWithOurPrefix) {
  TestPlayerProcess player({});
  const auto tap = tapPlayer(player, 0.0f);
  logs->clear();
  ProcessMuteTap::sweepOrphans(*hardware, logs);
  const auto entries = logs->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, LogLevel::error);
  EXPECT_TRUE(eventually([&] {
    const auto devices = readDeviceList(*hardware);
    return std::find(devices.begin(), devices.end(), tap->aggregateID()) == devices.end();
  }));
  tap->invalidate();
}

QUELLIX_ON_EVERY_BACKEND(TapTest);

}  // namespace
}  // namespace quellix
