#include "app/SpikeRunner.h"

#include <gtest/gtest.h>

#include <fstream>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

class SpikeRunnerTest : public testing::SimTest {
 protected:
  std::vector<std::string> logLines() const {
    std::ifstream file(context.logFile);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  testing::TemporaryDirectory directory;
  SpikeRunner::Context context{directory.path() / "spike.log", queue, hardware, logs,
                               Workspace::Roots{.proc = directory.path() / "no-proc"}};
};

TEST_F(SpikeRunnerTest, TheLogFileIsOnlyAppendedToAndAnUnwritableOneLosesTheLineOnlyThere) {
  SpikeRunner::log(context, "first");
  SpikeRunner::log(context, "zweite Zeile — ü");
  EXPECT_EQ(logLines(), (std::vector<std::string>{"first", "zweite Zeile — ü"}));

  std::ofstream(directory.path() / "x") << "a file, not a folder";
  SpikeRunner::log({directory.path() / "x" / "spike.log", queue, hardware, logs}, "still logged");
  EXPECT_EQ(logs->messages("Spike"),
            (std::vector<std::string>{"first", "zweite Zeile — ü", "still logged"}));
}

TEST_F(SpikeRunnerTest, TapListReportsCountAndIdentifiersAndEndsWithStatusOneOnFailure) {
  EXPECT_EQ(SpikeRunner::taps(context), 0);
  const AudioObjectID a = sim->addProcess({.pid = 1});
  AudioObjectID tapA = 0;
  AudioObjectID tapB = 0;
  auto description = CATapDescription::stereoMixdownOfProcesses({a});
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tapA), 0);
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tapB), 0);
  EXPECT_EQ(SpikeRunner::taps(context), 0);
  sim->failProperty(1, kAudioHardwarePropertyTapList, Call::getPropertyDataSize, -10);
  EXPECT_EQ(SpikeRunner::taps(context), 1);
  sim->clearFaults();
  sim->failProperty(1, kAudioHardwarePropertyTapList, Call::getPropertyData,
                    kAudioHardwareNotRunningError);
  EXPECT_EQ(SpikeRunner::taps(context), 1);
  EXPECT_EQ(logLines(),
            (std::vector<std::string>{
                "Taps im System: 0 []",
                "Taps im System: 2 [" + std::to_string(tapA) + ", " + std::to_string(tapB) + "]",
                "TapList size error: -10", "TapList read error: 1937010544"}));
}

TEST_F(SpikeRunnerTest, VolumeSetTakesZeroToHundredAndReportsTruncatedPercentages) {
  EXPECT_EQ(SpikeRunner::setVolume(context, "50"), 0) << "no default output is no failure";
  const AudioObjectID device = addDefaultOutput();
  // Refused numbers: the --volset integration test runs the program with each of them.
  EXPECT_EQ(SpikeRunner::setVolume(context, "abc"), 1);
  EXPECT_EQ(sim->callCount(Call::setPropertyData), 0u);
  sim->setDeviceVolume(device, 0.499f);
  EXPECT_EQ(SpikeRunner::setVolume(context, "30"), 0);
  EXPECT_FLOAT_EQ(sim->device(device)->volume, 0.3f);
  EXPECT_EQ(SpikeRunner::setVolume(context, "100"), 0);
  std::vector<std::string> expected = {"Volume: 0 % → 0 % (adjustable=false)"};
  expected.push_back("--volset erwartet 0–100");
  expected.push_back("Volume: 49 % → 30 % (adjustable=true)");
  expected.push_back("Volume: 30 % → 100 % (adjustable=true)");
  EXPECT_EQ(logs->messages("Spike"), expected);
}

TEST_F(SpikeRunnerTest, ListLogsHeaderApplicationsAndTotalAndSucceedsOnAnUnreadableSystem) {
  const AudioObjectID first = sim->addProcess({.pid = 71, .bundleID = "org.example.Zeta"});
  const AudioObjectID second = sim->addProcess({.pid = 72, .runningOutput = false});
  EXPECT_EQ(SpikeRunner::list(context), 0);
  sim->failCall(Call::getPropertyDataSize, -1);
  EXPECT_EQ(SpikeRunner::list(context), 0);
  const auto lines = logLines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0].rfind("=== Quellix List @ ", 0), 0u);
  EXPECT_TRUE(lines[0].ends_with(" +0000")) << lines[0];
  EXPECT_EQ(lines[1],
            "  Prozess 72 [-] pid=72 objects=[" + std::to_string(second) + "] playing=false");
  EXPECT_EQ(lines[2], "  Zeta [org.example.Zeta] pid=71 objects=[" + std::to_string(first) +
                          "] playing=true");
  EXPECT_EQ(lines[3], "Gesamt: 2 App(s)");
  EXPECT_EQ(lines[5], "Gesamt: 0 App(s)");
}

}  // namespace
}  // namespace quellix
