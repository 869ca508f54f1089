#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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
using testing::MonitorRecording;
using testing::SoundServer;
using testing::TestPlayerProcess;

// A 0.5-amplitude sine: its RMS level in dBFS.
constexpr double kToneLevel = -9.03;
constexpr double kSilenceLevel = -60.0;
constexpr double kTolerance = 0.5;

double median(std::vector<double> levels) {
  return testing::medianOf(std::move(levels));
}

// The levels from `from` to `to` windows of the recording.
std::vector<double> slice(const std::vector<double>& levels, std::size_t from, std::size_t to) {
  to = std::min(to, levels.size());
  return from < to ? std::vector<double>(levels.begin() + static_cast<long>(from),
                                         levels.begin() + static_cast<long>(to))
                   : std::vector<double>{};
}

class TapTest : public testing::ServerTest {
 protected:
  std::vector<AudioObjectID> objectsOf(pid_t pid) {
    std::vector<AudioObjectID> objects;
    for (const AudioObjectID object : readProcessList()) {
      if (read<SInt32>(object, globalAddress(kAudioProcessPropertyPID), 0) == pid) {
        objects.push_back(object);
      }
    }
    return objects;
  }

  double outputLevel(milliseconds span = milliseconds(1500)) {
    return testing::settledLevel(server->runtimeDir(), "out1.monitor", span, &lastLevels);
  }

  static std::string describe(const std::vector<double>& levels) {
    std::string text;
    for (double level : levels) {
      text += std::to_string(level).substr(0, 6) + " ";
    }
    return text;
  }

  std::string ioReport(const ProcessMuteTap& tap) {
    const auto statistics = backend->ioStatistics(tap.aggregateID());
    if (!statistics) {
      return " (no IO path)";
    }
    return " cycles=" + std::to_string(statistics->cycles) +
           " underruns=" + std::to_string(statistics->underruns) +
           " dropped=" + std::to_string(statistics->droppedFrames) +
           " latency=" + std::to_string(statistics->playbackLatencyMs) +
           " rate=" + std::to_string(statistics->rateCorrection);
  }
  std::string lastLevels;

  bool nothingOfOursLeft() {
    const std::string modules = server->pactl({"list", "short", "modules"});
    const std::string sinks = server->pactl({"list", "short", "sinks"});
    return modules.find("quellix") == std::string::npos &&
           sinks.find("quellix") == std::string::npos;
  }
};

TEST_P(TapTest, SpikeSilencesThePlayerForTenSecondsAndLeavesNothingBehind) {
  TestPlayerProcess player({});
  ASSERT_NEAR(outputLevel(), kToneLevel, kTolerance) << lastLevels;
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
    run = levels[i] < kSilenceLevel ? run + 1 : 0;
    longest = std::max(longest, run);
  }
  EXPECT_GE(longest, 36u) << describe(levels);
  EXPECT_NEAR(median(slice(levels, levels.size() - 6, levels.size())), kToneLevel, kTolerance)
      << describe(levels);
  EXPECT_TRUE(player.isRunning());
  EXPECT_TRUE(testing::eventually([&] { return nothingOfOursLeft(); }));
}

TEST_P(TapTest, AGainScalesThePlayerWithoutARebuild) {
  TestPlayerProcess player({});
  connectBackend();
  ASSERT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
  ProcessMuteTap tap("Player", objectsOf(player.pid()), 0.5f);
  const AudioObjectID tapID = tap.tapID();
  EXPECT_NEAR(outputLevel(), kToneLevel - 6.02, kTolerance) << lastLevels << ioReport(tap);
  tap.setGain(1.0f);
  EXPECT_NEAR(outputLevel(), kToneLevel, kTolerance) << lastLevels;
  tap.setGain(0.0f);
  EXPECT_LT(outputLevel(), kSilenceLevel);
  tap.setGain(0.5f);
  EXPECT_NEAR(outputLevel(), kToneLevel - 6.02, kTolerance);
  EXPECT_EQ(tap.tapID(), tapID);
  tap.invalidate();
  EXPECT_NEAR(outputLevel(), kToneLevel, kTolerance);
  EXPECT_TRUE(testing::eventually([&] { return nothingOfOursLeft(); }));
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
  ProcessMuteTap tap("Player", objectsOf(player.pid()), 0.5f);
  std::istringstream sinks(server->pactl({"list", "sinks"}));
  std::string line;
  while (std::getline(sinks, line) && line.find("Name: quellix.tap.") == std::string::npos) {
  }
  while (std::getline(sinks, line) && line.find("\tLatency: ") == std::string::npos) {
  }
  EXPECT_LT(std::stol(line.substr(line.find(':') + 1)), 100000) << line;  // µs
  EXPECT_NEAR(outputLevel(), kToneLevel - 6.02, kTolerance) << lastLevels << ioReport(tap);
}

TEST_P(TapTest, ASecondStreamOpenedWhileTappedIsSilentToo) {
  TestPlayerProcess player({});
  connectBackend();
  ASSERT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
  ProcessMuteTap tap("Player", objectsOf(player.pid()), 0.0f);
  ASSERT_LT(outputLevel(), kSilenceLevel);
  player.command("second");
  EXPECT_LT(outputLevel(milliseconds(2000)), kSilenceLevel);
  tap.invalidate();
  // Both streams are back (two tones of arbitrary phase: audible, at no set level).
  EXPECT_GT(outputLevel(), kSilenceLevel);
}

TEST_P(TapTest, AKilledSpikeLeavesThePlayerAudibleAndNothingBehind) {
  TestPlayerProcess player({});
  {
    testing::ChildProcess spike({QUELLIX_BINARY, "--spike", std::to_string(player.pid())},
                                {.outputFile = (server->runtimeDir() / "spike.log").string()});
    std::this_thread::sleep_for(milliseconds(3000));
    ASSERT_LT(outputLevel(), kSilenceLevel);
    spike.signal(SIGKILL);
    spike.wait(std::chrono::seconds(5));
  }
  // Its guard cleans up after it.
  EXPECT_TRUE(testing::eventually([&] { return nothingOfOursLeft(); }));
  EXPECT_NEAR(outputLevel(), kToneLevel, kTolerance);
}

QUELLIX_ON_EVERY_SERVER(TapTest);

}  // namespace
}  // namespace quellix

namespace quellix {
namespace {

// The tap's own contract, on the sound server instead of the simulator.
class ProcessMuteTapOnServerTest : public TapTest {};

TEST_P(ProcessMuteTapOnServerTest, CreatesListsAndRemovesItsObjects) {
  TestPlayerProcess player({});
  connectBackend();
  ASSERT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
  ProcessMuteTap tap("Player", objectsOf(player.pid()), 0.0f);
  UInt32 size = 0;
  const auto tapList = globalAddress(kAudioHardwarePropertyTapList);
  ASSERT_EQ(AudioObjectGetPropertyDataSize(1, &tapList, 0, nullptr, &size), 0);
  EXPECT_EQ(size, sizeof(AudioObjectID));
  const std::string uid =
      read(tap.aggregateID(), globalAddress(kAudioDevicePropertyDeviceUID), CFString()).str();
  EXPECT_EQ(uid.rfind(ProcessMuteTap::kAggregateUIDPrefix, 0), 0u);
  const auto devices = readDeviceList();
  EXPECT_NE(std::find(devices.begin(), devices.end(), tap.aggregateID()), devices.end());
  EXPECT_EQ(logs->messages("ProcessMuteTap"),
            (std::vector<std::string>{
                "Created tap #" + std::to_string(tap.tapID()) + " + aggregate #" +
                    std::to_string(tap.aggregateID()) +
                    " for Player (gain 0.000000, 1 process object(s))",
                "Tap-Format: 48000.000000 Hz / 2 ch — Output-Gerät: 48000.000000 Hz"}));

  tap.invalidate();
  logs->clear();
  tap.invalidate();
  EXPECT_TRUE(logs->entries().empty());
  ASSERT_EQ(AudioObjectGetPropertyDataSize(1, &tapList, 0, nullptr, &size), 0);
  EXPECT_EQ(size, 0u);
  EXPECT_TRUE(testing::eventually([&] { return nothingOfOursLeft(); }));
}

TEST_P(ProcessMuteTapOnServerTest, AVanishedProcessFailsWithNothingLeftBehind) {
  connectBackend();
  try {
    ProcessMuteTap tap("Gone", {999999}, 0.0f);
    ADD_FAILURE() << "a tap over no process was built";
  } catch (const TextError& error) {
    EXPECT_EQ(error.description(),
              "AudioHardwareCreateProcessTap failed for Gone: 560947818 (!obj)");
  }
  EXPECT_TRUE(nothingOfOursLeft());
}

TEST_P(ProcessMuteTapOnServerTest, TheSweepRemovesAggregatesWithOurPrefix) {
  TestPlayerProcess player({});
  connectBackend();
  ASSERT_TRUE(testing::eventually([&] { return !objectsOf(player.pid()).empty(); }));
  ProcessMuteTap tap("Player", objectsOf(player.pid()), 0.0f);
  logs->clear();
  ProcessMuteTap::sweepOrphans();
  const auto entries = logs->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, LogLevel::error);
  EXPECT_EQ(entries[0].message.rfind("Orphan-Aggregate com.norvalin.quellix.agg.", 0), 0u);
  EXPECT_TRUE(entries[0].message.ends_with(" entfernt (Status 0)"));
  tap.invalidate();
}

QUELLIX_ON_EVERY_SERVER(ProcessMuteTapOnServerTest);

}  // namespace
}  // namespace quellix
