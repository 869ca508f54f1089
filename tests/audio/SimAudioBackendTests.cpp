#include "audio/sim/SimAudioBackend.h"

#include <gtest/gtest.h>

#include "audio/CoreAudioSupport.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

class SimAudioBackendTest : public testing::SimTest {};

TEST_F(SimAudioBackendTest, ScriptedChangesFireListenersOnlyThroughTheirQueue) {
  const AudioObjectID device = addDefaultOutput();
  std::vector<std::string> fired;
  auto record = [&](const char* what) {
    return makeListenerBlock([&fired, what](UInt32 count, const AudioObjectPropertyAddress* a) {
      ASSERT_EQ(count, 1u);
      fired.push_back(std::string(what) + ":" + describe(*a));
    });
  };
  const auto list = globalAddress(kAudioHardwarePropertyProcessObjectList);
  const auto volume = AudioObjectPropertyAddress{
      kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioDevicePropertyScopeOutput, 0};
  const auto defaultOutput = globalAddress(kAudioHardwarePropertyDefaultOutputDevice);
  ASSERT_EQ(hardware.AudioObjectAddPropertyListenerBlock(1, &list, &queue, record("list")), 0);
  ASSERT_EQ(hardware.AudioObjectAddPropertyListenerBlock(device, &volume, &queue, record("volume")),
            0);
  ASSERT_EQ(hardware.AudioObjectAddPropertyListenerBlock(1, &defaultOutput, &queue, record("dOut")),
            0);

  const AudioObjectID process = sim->addProcess({.pid = 42});
  sim->setDeviceVolume(device, 0.25f);
  sim->setDeviceVolume(device, 0.25f);  // no change, no event
  const Float32 half = 0.5f;
  ASSERT_EQ(hardware.AudioObjectSetPropertyData(device, &volume, 0, nullptr, sizeof half, &half),
            0);
  sim->setDefaultOutputDevice(sim->addDevice({.uid = "headphones"}));
  sim->removeProcess(process);
  EXPECT_TRUE(fired.empty()) << "nothing is delivered before the queue runs";

  queue.drain();
  EXPECT_EQ(fired, (std::vector<std::string>{"list:prs#/glob/main", "volume:vmvc/outp/main",
                                             "volume:vmvc/outp/main", "dOut:dOut/glob/main",
                                             "list:prs#/glob/main"}));
}

TEST_F(SimAudioBackendTest, ARegistrationIsRemovedByItsHandlerObject) {
  const auto list = globalAddress(kAudioHardwarePropertyProcessObjectList);
  auto first = makeListenerBlock([](UInt32, const AudioObjectPropertyAddress*) {});
  auto lookalike = makeListenerBlock([](UInt32, const AudioObjectPropertyAddress*) {});
  ASSERT_EQ(hardware.AudioObjectAddPropertyListenerBlock(1, &list, &queue, first), 0);
  EXPECT_NE(hardware.AudioObjectRemovePropertyListenerBlock(1, &list, &queue, lookalike), 0);
  EXPECT_EQ(sim->listenerCount(1, list), 1u);
  EXPECT_EQ(hardware.AudioObjectRemovePropertyListenerBlock(1, &list, &queue, first), 0);
  EXPECT_EQ(sim->listenerCount(1, list), 0u);
  EXPECT_NE(hardware.AudioObjectAddPropertyListenerBlock(1, &list, nullptr, first), 0)
      << "a listener without a queue would run on a backend thread";
}

TEST_F(SimAudioBackendTest, FaultsApplyToTheirCallAndPropertyOnly) {
  const AudioObjectID a = sim->addProcess({.pid = 1});
  const AudioObjectID b = sim->addProcess({.pid = 2});
  sim->failProperty(a, kAudioProcessPropertyPID, Call::getPropertyData, -7);
  EXPECT_THROW(read<SInt32>(hardware, a, globalAddress(kAudioProcessPropertyPID), 0), TextError);
  EXPECT_EQ(read<SInt32>(hardware, b, globalAddress(kAudioProcessPropertyPID), 0), 2);
  EXPECT_EQ(read<UInt32>(hardware, a, globalAddress(kAudioProcessPropertyIsRunning), 0), 1u);

  sim->failCall(Call::createProcessTap, 99);
  auto description = CATapDescription::stereoMixdownOfProcesses({a});
  AudioObjectID tap = 0;
  EXPECT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tap), 99);
  sim->clearFaults();
  EXPECT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tap), 0);
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 2u);
}

TEST_F(SimAudioBackendTest, RenderMixesProcessesIntoTheDefaultOutputUnlessATapMutesThem) {
  const AudioObjectID output = addDefaultOutput();
  const AudioObjectID loud = sim->addProcess({.pid = 10, .level = 0.25f});
  sim->addProcess({.pid = 11, .level = 0.125f});
  sim->addProcess({.pid = 12, .runningOutput = false, .level = 0.5f});
  EXPECT_FLOAT_EQ(sim->render(4)[output][0], 0.375f);

  auto description = CATapDescription::stereoMixdownOfProcesses({loud});
  description.setMuteBehavior(CATapMuted);
  AudioObjectID tap = 0;
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tap), 0);
  const auto samples = sim->render(4)[output];
  ASSERT_EQ(samples.size(), 8u);
  for (float sample : samples) {
    EXPECT_FLOAT_EQ(sample, 0.125f);
  }
}

TEST_F(SimAudioBackendTest, AStartedIOBlockHearsItsTapAndPlaysIntoTheMainSubDevice) {
  const AudioObjectID output = addDefaultOutput("speakers");
  const AudioObjectID process = sim->addProcess({.pid = 10, .level = 0.5f});
  auto description = CATapDescription::stereoMixdownOfProcesses({process});
  description.setMuteBehavior(CATapMuted);
  AudioObjectID tap = 0;
  ASSERT_EQ(hardware.AudioHardwareCreateProcessTap(&description, &tap), 0);
  const CFDictionary aggregateDescription = {
      {kAudioAggregateDeviceUIDKey, "agg"},
      {kAudioAggregateDeviceMainSubDeviceKey, "speakers"},
      {kAudioAggregateDeviceTapListKey, {{{kAudioSubTapUIDKey, description.UUID().uuidString()}}}}};
  AudioObjectID aggregate = 0;
  ASSERT_EQ(hardware.AudioHardwareCreateAggregateDevice(aggregateDescription, &aggregate), 0);
  EXPECT_EQ(
      read<CFString>(hardware, aggregate, globalAddress(kAudioDevicePropertyDeviceUID), CFString())
          .str(),
      "agg");

  AudioDeviceIOProcID proc = nullptr;
  std::size_t calls = 0;
  ASSERT_EQ(hardware.AudioDeviceCreateIOProcIDWithBlock(
                &proc, aggregate, nullptr,
                [&](const AudioTimeStamp*, const AudioBufferList* in, const AudioTimeStamp*,
                    AudioBufferList* out, const AudioTimeStamp*) {
                  ++calls;
                  const auto* input = static_cast<const float*>(in->mBuffers[0].mData);
                  auto* samples = static_cast<float*>(out->mBuffers[0].mData);
                  for (UInt32 i = 0; i < out->mBuffers[0].mDataByteSize / 4; ++i) {
                    samples[i] = input[i] * 0.5f;
                  }
                }),
            0);
  EXPECT_FLOAT_EQ(sim->render(2)[output][0], 0.0f) << "not started: the tap only mutes";
  ASSERT_EQ(hardware.AudioDeviceStart(aggregate, proc), 0);
  EXPECT_FLOAT_EQ(sim->render(2)[output][1], 0.25f);
  ASSERT_EQ(hardware.AudioDeviceStop(aggregate, proc), 0);
  ASSERT_EQ(hardware.AudioDeviceDestroyIOProcID(aggregate, proc), 0);
  ASSERT_EQ(hardware.AudioHardwareDestroyAggregateDevice(aggregate), 0);
  ASSERT_EQ(hardware.AudioHardwareDestroyProcessTap(tap), 0);
  EXPECT_FLOAT_EQ(sim->render(2)[output][0], 0.5f);
  EXPECT_EQ(calls, 1u);
}

TEST_F(SimAudioBackendTest, AggregatesNeedAnExistingMainSubDeviceAndTap) {
  addDefaultOutput("speakers");
  AudioObjectID aggregate = 0;
  EXPECT_EQ(
      hardware.AudioHardwareCreateAggregateDevice(
          {{kAudioAggregateDeviceUIDKey, "x"}, {kAudioAggregateDeviceMainSubDeviceKey, "gone"}},
          &aggregate),
      kAudioHardwareBadDeviceError);
  EXPECT_EQ(hardware.AudioHardwareCreateAggregateDevice(
                {{kAudioAggregateDeviceUIDKey, "x"},
                 {kAudioAggregateDeviceMainSubDeviceKey, "speakers"},
                 {kAudioAggregateDeviceTapListKey, {{{kAudioSubTapUIDKey, "no-such-tap"}}}}},
                &aggregate),
            kAudioHardwareBadObjectError);
  EXPECT_TRUE(sim->aggregates().empty());
}

TEST(AudioHardwareWithoutBackend, EveryCallSaysTheSystemIsNotRunning) {
  AudioHardware hardware(nullptr);
  UInt32 size = 0;
  const auto address = globalAddress(kAudioHardwarePropertyTapList);
  EXPECT_EQ(hardware.AudioObjectGetPropertyDataSize(1, &address, 0, nullptr, &size),
            kAudioHardwareNotRunningError);
  EXPECT_FALSE(hardware.AudioObjectHasProperty(1, &address));
}

}  // namespace
}  // namespace quellix
