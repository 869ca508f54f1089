#include "engine/volume/SystemVolumeController.h"

#include <gtest/gtest.h>

#include "audio/CoreAudioSupport.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

const AudioObjectPropertyAddress kVolume{kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                                         kAudioDevicePropertyScopeOutput, 0};
const AudioObjectPropertyAddress kMute{kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput,
                                       0};

class SystemVolumeControllerTest : public testing::SimTest {
 protected:
  float deviceVolume(AudioObjectID device) { return sim->device(device)->volume; }
  UInt32 deviceMute(AudioObjectID device) { return sim->device(device)->muteValue; }
};

TEST_F(SystemVolumeControllerTest, ClampsAndUnmutesOnlyWhenRaisedAboveZero) {
  const AudioObjectID device = addDefaultOutput();
  sim->setDeviceVolume(device, 0.5f);
  sim->setDeviceMuteValue(device, 1);
  auto controller = SystemVolumeController::create(queue, hardware, logs);
  EXPECT_DOUBLE_EQ(controller->volume().get(), 0.5);
  EXPECT_TRUE(controller->isMuted().get());

  struct Case {
    double requested;
    float written;
    bool mutedAfter;
  };
  // Each case starts muted.
  const Case cases[] = {
      {1.7, 1.0f, false}, {-0.2, 0.0f, true}, {0.0, 0.0f, true}, {0.3, 0.3f, false}};
  for (const auto& c : cases) {
    controller->setMuted(true);
    controller->setVolume(c.requested);
    EXPECT_EQ(deviceVolume(device), c.written) << c.requested;
    EXPECT_EQ(controller->volume().get(), static_cast<double>(c.written)) << c.requested;
    EXPECT_EQ(deviceMute(device), c.mutedAfter ? 1u : 0u) << c.requested;
    EXPECT_EQ(controller->isMuted().get(), c.mutedAfter) << c.requested;
  }
  sim->setDeviceMuteValue(device, 2);
  queue.drain();
  EXPECT_FALSE(controller->isMuted().get()) << "a mute value of 2 is no mute";
}

TEST_F(SystemVolumeControllerTest, ADeviceWithoutVolumeIsNotAdjustableButStillMutes) {
  const AudioObjectID device = sim->addDevice({.uid = "hdmi", .hasVolume = false});
  sim->setDefaultOutputDevice(device);
  auto controller = SystemVolumeController::create(queue, hardware, logs);
  EXPECT_FALSE(controller->isAdjustable().get());
  controller->setVolume(0.4);
  EXPECT_EQ(sim->callCount(Call::setPropertyData), 0u);
  controller->setMuted(true);
  EXPECT_EQ(deviceMute(device), 1u);
  EXPECT_EQ(sim->listenerCount(device, kMute), 1u);
  EXPECT_EQ(sim->listenerCount(device, kVolume), 1u) << "registered whether adjustable or not";

  sim->setDeviceMuteValue(device, 0);
  queue.drain();
  EXPECT_FALSE(controller->isMuted().get());
}

TEST_F(SystemVolumeControllerTest, FollowsTheDefaultDeviceAndDetachesWhenThereIsNone) {
  const AudioObjectID first = addDefaultOutput("speakers");
  sim->setDeviceVolume(first, 0.8f);
  const AudioObjectID second = sim->addDevice({.uid = "headphones", .volume = 0.8f});
  sim->setDeviceMuteValue(second, 1);
  auto controller = SystemVolumeController::create(queue, hardware, logs);
  int volumeChanges = 0;
  auto subscription = controller->volume().observe([&] { ++volumeChanges; });

  sim->setDefaultOutputDevice(second);
  queue.drain();
  EXPECT_EQ(sim->listenerCount(first, kVolume), 0u) << "old device's listeners removed";
  EXPECT_EQ(sim->listenerCount(second, kVolume), 1u);
  EXPECT_TRUE(controller->isMuted().get());
  EXPECT_EQ(volumeChanges, 0) << "same volume on the new device: no change";

  sim->removeDevice(second);
  queue.drain();
  EXPECT_FALSE(controller->isAdjustable().get());
  EXPECT_EQ(controller->volume().get(), static_cast<double>(0.8f)) << "the last volume stays";
  controller->setMuted(false);
  EXPECT_EQ(sim->callCount(Call::setPropertyData), 0u) << "detached: nothing is written";

  sim->setDefaultOutputDevice(first);
  queue.drain();
  EXPECT_TRUE(controller->isAdjustable().get());
  EXPECT_FALSE(controller->isMuted().get());
  EXPECT_EQ(sim->listenerCount(first, kMute), 1u);
}

TEST_F(SystemVolumeControllerTest, FailedWritesAreLoggedAndChangeNothing) {
  const AudioObjectID device = addDefaultOutput();
  sim->setDeviceMuteValue(device, 1);
  auto controller = SystemVolumeController::create(queue, hardware, logs);
  sim->failCall(Call::setPropertyData, -3);
  controller->setVolume(0.5);
  controller->setMuted(false);
  EXPECT_DOUBLE_EQ(controller->volume().get(), 1.0);
  EXPECT_TRUE(controller->isMuted().get());
  EXPECT_EQ(logs->messages("SystemVolume").size(), 2u);
}

TEST_F(SystemVolumeControllerTest, ALateListenerAfterTheControllerIsGoneDoesNothing) {
  const AudioObjectID device = addDefaultOutput();
  SystemVolumeController::create(queue, hardware, logs);
  sim->setDeviceVolume(device, 0.1f);
  sim->setDefaultOutputDevice(kAudioObjectUnknown);
  EXPECT_NO_FATAL_FAILURE(queue.drain());
}

}  // namespace
}  // namespace quellix
