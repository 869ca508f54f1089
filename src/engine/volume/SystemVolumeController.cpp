#include "engine/volume/SystemVolumeController.h"

#include <algorithm>

#include "audio/CoreAudioSupport.h"
#include "support/MainQueue.h"

namespace quellix {
namespace {

constexpr AudioObjectPropertyAddress kVolumeAddress{
    kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioDevicePropertyScopeOutput,
    kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress kMuteAddress{
    kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput, kAudioObjectPropertyElementMain};
constexpr UInt32 kMutedValue = 1;

}  // namespace

std::shared_ptr<SystemVolumeController> SystemVolumeController::create(MainQueue& queue) {
  std::shared_ptr<SystemVolumeController> controller(new SystemVolumeController(queue));
  auto listener = controller->makeListener(&SystemVolumeController::attachToDefaultDevice);
  if (AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                          &controller->defaultDeviceAddress_, &queue,
                                          listener) == kAudioHardwareNoError) {
    controller->defaultDeviceListener_ = std::move(listener);
  }
  controller->attachToDefaultDevice();
  return controller;
}

SystemVolumeController::SystemVolumeController(MainQueue& queue) : queue_(queue) {}

AudioObjectPropertyListenerBlock SystemVolumeController::makeListener(
    void (SystemVolumeController::*action)()) {
  // The listener only schedules: the work runs after whatever the main thread is doing.
  return makeListenerBlock([weakSelf = weak_from_this(), &queue = queue_, action](
                               UInt32, const AudioObjectPropertyAddress*) {
    queue.post([weakSelf, action] {
      if (auto self = weakSelf.lock()) {
        ((*self).*action)();
      }
    });
  });
}

void SystemVolumeController::attachToDefaultDevice() {
  for (const auto& [address, listener] : deviceListeners_) {
    AudioObjectRemovePropertyListenerBlock(deviceID_, &address, &queue_, listener);
  }
  deviceListeners_.clear();

  AudioObjectID device = kAudioObjectUnknown;
  try {
    device = read<UInt32>(kAudioObjectSystemObject, defaultDeviceAddress_, kAudioObjectUnknown);
  } catch (const TextError&) {
    device = kAudioObjectUnknown;
  }
  deviceID_ = device;
  if (deviceID_ == kAudioObjectUnknown) {
    isAdjustable_.set(false);
    return;
  }
  isAdjustable_.set(AudioObjectHasProperty(deviceID_, &kVolumeAddress));
  for (const auto& address : {kVolumeAddress, kMuteAddress}) {
    auto listener = makeListener(&SystemVolumeController::refresh);
    if (AudioObjectAddPropertyListenerBlock(deviceID_, &address, &queue_, listener) ==
        kAudioHardwareNoError) {
      deviceListeners_.emplace_back(address, std::move(listener));
    }
  }
  refresh();
}

void SystemVolumeController::refresh() {
  if (deviceID_ == kAudioObjectUnknown) {
    return;
  }
  try {
    volume_.set(static_cast<double>(read<Float32>(deviceID_, kVolumeAddress, 0.0f)));
  } catch (const TextError&) {
  }
  try {
    isMuted_.set(read<UInt32>(deviceID_, kMuteAddress, 0) == kMutedValue);
  } catch (const TextError&) {
  }
}

void SystemVolumeController::setVolume(double volume) {
  if (deviceID_ == kAudioObjectUnknown || !isAdjustable_.get()) {
    return;
  }
  const auto clamped = static_cast<Float32>(volume > 1.0 ? 1.0 : (volume > 0.0 ? volume : 0.0));
  try {
    write(deviceID_, kVolumeAddress, clamped);
  } catch (const TextError& error) {
    logger_.error("setVolume: " + error.description());
    return;
  }
  volume_.set(static_cast<double>(clamped));
  if (isMuted_.get() && clamped > 0.0f) {
    setMuted(false);
  }
}

void SystemVolumeController::setMuted(bool muted) {
  if (deviceID_ == kAudioObjectUnknown) {
    return;
  }
  try {
    write<UInt32>(deviceID_, kMuteAddress, muted ? kMutedValue : 0);
  } catch (const TextError& error) {
    logger_.error("setMuted: " + error.description());
    return;
  }
  isMuted_.set(muted);
}

}  // namespace quellix
