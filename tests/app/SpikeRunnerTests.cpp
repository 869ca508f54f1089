#include "app/SpikeRunner.h"

#include <gtest/gtest.h>

#include <fstream>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

class SpikeRunnerTest : public testing::SimTest {
 protected:
  std::string logFile() const {
    std::ifstream file(context.logFile);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  testing::TemporaryDirectory directory;
  SpikeRunner::Context context{directory.path() / "spike.log", queue, hardware, logs};
};

TEST_F(SpikeRunnerTest, TheLogFileIsCreatedOnFirstUseAndOnlyAppendedTo) {
  SpikeRunner::log(context, "first");
  SpikeRunner::log(context, "zweite Zeile — ü");
  EXPECT_EQ(logFile(), "first\nzweite Zeile — ü\n");
  EXPECT_EQ(logs->messages("Spike"), (std::vector<std::string>{"first", "zweite Zeile — ü"}));
}

TEST_F(SpikeRunnerTest, AnUnwritableLogFileLosesTheLineOnlyThere) {
  SpikeRunner::Context nowhere{directory.path() / "missing-dir" / "x" / "spike.log", queue,
                               hardware, logs};
  std::filesystem::create_directories(directory.path() / "missing-dir");
  std::ofstream(directory.path() / "missing-dir" / "x") << "a file, not a folder";
  SpikeRunner::log(nowhere, "still logged");
  EXPECT_EQ(logs->messages("Spike"), std::vector<std::string>{"still logged"});
}

TEST_F(SpikeRunnerTest, TapListReportsCountAndIdentifiers) {
  EXPECT_EQ(SpikeRunner::taps(context), 0);
  const AudioObjectID a = sim->addProcess({.pid = 1});
  AudioObjectID tapA = 0;
  AudioObjectID tapB = 0;
  auto description = CATapDescription::stereoMixdownOfProcesses({a});
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tapA), 0);
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tapB), 0);
  EXPECT_EQ(SpikeRunner::taps(context), 0);
  EXPECT_EQ(logFile(), "Taps im System: 0 []\nTaps im System: 2 [" + std::to_string(tapA) + ", " +
                           std::to_string(tapB) + "]\n");
}

TEST_F(SpikeRunnerTest, TapListFailuresEndWithStatusOne) {
  sim->failProperty(1, kAudioHardwarePropertyTapList, Call::getPropertyDataSize, -10);
  EXPECT_EQ(SpikeRunner::taps(context), 1);
  sim->clearFaults();
  sim->failProperty(1, kAudioHardwarePropertyTapList, Call::getPropertyData,
                    kAudioHardwareNotRunningError);
  EXPECT_EQ(SpikeRunner::taps(context), 1);
  EXPECT_EQ(logFile(), "TapList size error: -10\nTapList read error: 1937010544\n");
}

}  // namespace
}  // namespace quellix

namespace quellix {
namespace {

class VolumeSetTest : public testing::SimTest {
 protected:
  testing::TemporaryDirectory directory;
  SpikeRunner::Context context{directory.path() / "spike.log", queue, hardware, logs};
};

TEST_F(VolumeSetTest, SetsTheDefaultOutputAndReportsTruncatedPercentages) {
  const AudioObjectID device = addDefaultOutput();
  sim->setDeviceVolume(device, 0.499f);
  EXPECT_EQ(SpikeRunner::setVolume(context, "30"), 0);
  EXPECT_FLOAT_EQ(sim->device(device)->volume, 0.3f);
  EXPECT_EQ(SpikeRunner::setVolume(context, "100"), 0);
  EXPECT_EQ(SpikeRunner::setVolume(context, "0"), 0);
  EXPECT_EQ(logs->messages("Spike"),
            (std::vector<std::string>{"Volume: 49 % → 30 % (adjustable=true)",
                                      "Volume: 30 % → 100 % (adjustable=true)",
                                      "Volume: 100 % → 0 % (adjustable=true)"}));
}

TEST_F(VolumeSetTest, RejectsWhatIsNotANumberFromZeroToHundred) {
  addDefaultOutput();
  for (const char* bad : {"100.5", "-1", " 5", "abc", "nan", "", "5 "}) {
    EXPECT_EQ(SpikeRunner::setVolume(context, bad), 1) << bad;
  }
  EXPECT_EQ(sim->callCount(SimAudioBackend::Call::setPropertyData), 0u);
  EXPECT_EQ(logs->messages("Spike"), std::vector<std::string>(7, "--volset erwartet 0–100"));
}

TEST_F(VolumeSetTest, WithoutADefaultOutputItStillEndsWithStatusZero) {
  EXPECT_EQ(SpikeRunner::setVolume(context, "50"), 0);
  EXPECT_EQ(logs->messages("Spike"),
            std::vector<std::string>{"Volume: 0 % → 0 % (adjustable=false)"});
}

}  // namespace
}  // namespace quellix

namespace quellix {
namespace {

class ListModeTest : public testing::SimTest {
 protected:
  std::vector<std::string> logLines() {
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

TEST_F(ListModeTest, LogsHeaderApplicationsAndTotal) {
  const AudioObjectID first = sim->addProcess({.pid = 71, .bundleID = "org.example.Zeta"});
  const AudioObjectID second = sim->addProcess({.pid = 72, .runningOutput = false});
  EXPECT_EQ(SpikeRunner::list(context), 0);
  const auto lines = logLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0].rfind("=== Quellix List @ ", 0), 0u);
  EXPECT_EQ(lines[0].size(), std::string("=== Quellix List @ 2026-11-22 20:19:46 +0000").size());
  EXPECT_TRUE(lines[0].ends_with(" +0000"));
  EXPECT_EQ(lines[1],
            "  Prozess 72 [-] pid=72 objects=[" + std::to_string(second) + "] playing=false");
  EXPECT_EQ(lines[2], "  Zeta [org.example.Zeta] pid=71 objects=[" + std::to_string(first) +
                          "] playing=true");
  EXPECT_EQ(lines[3], "Gesamt: 2 App(s)");
}

TEST_F(ListModeTest, AnEmptyOrUnreadableSystemListsNothingAndSucceeds) {
  sim->failCall(SimAudioBackend::Call::getPropertyDataSize, -1);
  EXPECT_EQ(SpikeRunner::list(context), 0);
  const auto lines = logLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "Gesamt: 0 App(s)");
}

}  // namespace
}  // namespace quellix
