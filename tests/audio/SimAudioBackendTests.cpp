#include "audio/sim/SimAudioBackend.h"

#include <gtest/gtest.h>

#include "audio/CoreAudioSupport.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

// Rendering, taps and faults are what the engine's tests stand on and show there; these are the
// simulator's own rules.
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
