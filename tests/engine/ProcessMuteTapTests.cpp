#include "engine/muting/ProcessMuteTap.h"

#include <gtest/gtest.h>

#include <functional>

#include "audio/CoreAudioSupport.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

class ProcessMuteTapTest : public testing::SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    output = addDefaultOutput("speakers");
    player = sim->addProcess({.pid = 500, .bundleID = "org.example.player", .level = 0.5f});
  }

  AudioObjectID output = 0;
  AudioObjectID player = 0;
};

TEST_F(ProcessMuteTapTest, AFailureAtAnyStepLeavesNothingBehindAndSaysWhy) {
  struct Case {
    std::function<void()> fault;
    std::string expected;
  };
  const auto failing = [this](Call call, OSStatus status) {
    return [this, call, status] { sim->failCall(call, status); };
  };
  const std::vector<Case> cases = {
      {failing(Call::createProcessTap, static_cast<OSStatus>(fourCC("!obj"))),
       "AudioHardwareCreateProcessTap failed for Player: 560947818 (!obj)"},
      {failing(Call::createAggregateDevice, -20), "AudioHardwareCreateAggregateDevice failed: -20"},
      {failing(Call::createIOProcID, -30), "AudioDeviceCreateIOProcIDWithBlock failed: -30"},
      {failing(Call::startDevice, -40), "AudioDeviceStart failed: -40"},
      // The default output's reads rethrow their own texts.
      {[this] {
         sim->failProperty(1, kAudioHardwarePropertyDefaultOutputDevice, Call::getPropertyDataSize,
                           -5);
       },
       "Error reading data size for dOut/glob/main: -5"},
      {[this] {
         sim->failProperty(output, kAudioDevicePropertyDeviceUID, Call::getPropertyData, -6);
       },
       "Error reading data for uid /glob/main: -6"},
  };
  for (const auto& c : cases) {
    sim->clearFaults();
    c.fault();
    try {
      ProcessMuteTap(hardware, "Player", {player}, 0.0f, logs);
      ADD_FAILURE() << "no error: " << c.expected;
    } catch (const TextError& error) {
      EXPECT_EQ(error.description(), c.expected);
    }
    EXPECT_TRUE(sim->taps().empty()) << c.expected;
    EXPECT_TRUE(sim->aggregates().empty()) << c.expected;
  }
  EXPECT_EQ(sim->callCount(Call::destroyIOProcID), 1u) << "only the start failure had an IO proc";
  EXPECT_FLOAT_EQ(sim->render(16)[output][15], 0.5f) << "the player is still heard";
}

TEST_F(ProcessMuteTapTest, AnUnreadableFormatDoesNotFailConstruction) {
  sim->failProperty(kAudioObjectUnknown, kAudioTapPropertyFormat, Call::getPropertyData, -1);
  ProcessMuteTap tap(hardware, "Player", {player}, 0.0f, logs);
  EXPECT_EQ(logs->messages("ProcessMuteTap").size(), 1u);
  tap.invalidate();
}

TEST_F(ProcessMuteTapTest, TeardownGoesOnPastFailingCallsAndClearsTheIdentifiers) {
  ProcessMuteTap tap(hardware, "Player", {player}, 0.0f, logs);
  logs->clear();
  sim->failCall(Call::stopDevice, -1);
  sim->failCall(Call::destroyIOProcID, -2);
  sim->failCall(Call::destroyAggregateDevice, -3);
  sim->failCall(Call::destroyProcessTap, -4);
  tap.invalidate();
  EXPECT_EQ(logs->messages("ProcessMuteTap").size(), 5u) << "four failures, then the end";
  EXPECT_EQ(tap.tapID(), kAudioObjectUnknown);
  EXPECT_EQ(tap.aggregateID(), kAudioObjectUnknown);
}

TEST_F(ProcessMuteTapTest, SweepRemovesOnlyAggregatesCarryingOurPrefix) {
  auto makeAggregate = [&](const std::string& uid) {
    AudioObjectID id = 0;
    EXPECT_EQ(hardware.AudioHardwareCreateAggregateDevice(
                  {{"uid", uid}, {"master", "speakers"}, {"taps", CFDictionary::array()}}, &id),
              0);
    return id;
  };
  const AudioObjectID orphan = makeAggregate("com.norvalin.quellix.agg.1234");
  makeAggregate("org.other.com.norvalin.quellix.agg.5678");
  const AudioObjectID unreadable = makeAggregate("com.norvalin.quellix.agg.unreadable");
  sim->failProperty(unreadable, kAudioDevicePropertyDeviceUID, Call::getPropertyData, -1);

  ProcessMuteTap::sweepOrphans(hardware, logs);
  EXPECT_EQ(logs->entries().size(), 1u);
  const auto remaining = sim->aggregates();
  ASSERT_EQ(remaining.size(), 2u);
  EXPECT_NE(remaining[0].id, orphan);
  EXPECT_NE(remaining[1].id, orphan);

  // An unreadable device list leaves nothing to sweep and nothing to say.
  sim->clearFaults();
  sim->failProperty(1, kAudioHardwarePropertyDevices, Call::getPropertyDataSize, -1);
  logs->clear();
  ProcessMuteTap::sweepOrphans(hardware, logs);
  EXPECT_TRUE(logs->entries().empty());
}

}  // namespace
}  // namespace quellix
