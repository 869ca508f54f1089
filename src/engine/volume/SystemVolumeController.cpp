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

std::shared_ptr<SystemVolumeController> SystemVolumeController::create(
    MainQueue& queue, AudioHardware& hardware, std::shared_ptr<LogSink> logs) {
  std::shared_ptr<SystemVolumeController> controller(
      new SystemVolumeController(queue, hardware, std::move(logs)));
  auto listener = controller->makeListener(&SystemVolumeController::attachToDefaultDevice);
  if (hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                   &controller->defaultDeviceAddress_, &queue,
                                                   listener) == kAudioHardwareNoError) {
    controller->defaultDeviceListener_ = std::move(listener);
  }
  controller->attachToDefaultDevice();
  return controller;
}

SystemVolumeController::SystemVolumeController(MainQueue& queue, AudioHardware& hardware,
                                               std::shared_ptr<LogSink> logs)
    : queue_(queue), hardware_(hardware), logger_(std::move(logs), "SystemVolume") {}

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
    hardware_.AudioObjectRemovePropertyListenerBlock(deviceID_, &address, &queue_, listener);
  }
  deviceListeners_.clear();

  AudioObjectID device = kAudioObjectUnknown;
  try {
    device = read<UInt32>(hardware_, kAudioObjectSystemObject, defaultDeviceAddress_,
                          kAudioObjectUnknown);
  } catch (const TextError&) {
    device = kAudioObjectUnknown;
  }
  deviceID_ = device;
  if (deviceID_ == kAudioObjectUnknown) {
    isAdjustable_.set(false);
    return;
  }
  isAdjustable_.set(hardware_.AudioObjectHasProperty(deviceID_, &kVolumeAddress));
  for (const auto& address : {kVolumeAddress, kMuteAddress}) {
    auto listener = makeListener(&SystemVolumeController::refresh);
    if (hardware_.AudioObjectAddPropertyListenerBlock(deviceID_, &address, &queue_, listener) ==
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
    volume_.set(static_cast<double>(read<Float32>(hardware_, deviceID_, kVolumeAddress, 0.0f)));
  } catch (const TextError&) {
  }
  try {
    isMuted_.set(read<UInt32>(hardware_, deviceID_, kMuteAddress, 0) == kMutedValue);
  } catch (const TextError&) {
  }
}

void SystemVolumeController::setVolume(double volume) {
  if (deviceID_ == kAudioObjectUnknown || !isAdjustable_.get()) {
    return;
  }
  const auto clamped = static_cast<Float32>(volume > 1.0 ? 1.0 : (volume > 0.0 ? volume : 0.0));
  try {
    write(hardware_, deviceID_, kVolumeAddress, clamped);
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
    write<UInt32>(hardware_, deviceID_, kMuteAddress, muted ? kMutedValue : 0);
  } catch (const TextError& error) {
    logger_.error("setMuted: " + error.description());
    return;
  }
  isMuted_.set(muted);
}

}  // namespace quellix
