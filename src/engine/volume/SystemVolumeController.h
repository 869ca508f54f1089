#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "audio/AudioHardware.h"
#include "support/Logger.h"
#include "support/Observable.h"

namespace quellix {

class MainQueue;

// The master volume as the panel shows it: follows the default output device, mirrors its
// volume and mute, and sets them. Main thread only.
class SystemVolumeController : public std::enable_shared_from_this<SystemVolumeController> {
 public:
  // Registers for default-output changes and attaches to the current default output.
  static std::shared_ptr<SystemVolumeController> create(MainQueue& queue, AudioHardware& hardware,
                                                        std::shared_ptr<LogSink> logs);

  const Observable<double>& volume() const { return volume_; }
  const Observable<bool>& isMuted() const { return isMuted_; }
  const Observable<bool>& isAdjustable() const { return isAdjustable_; }

  // Clamps into 0...1; raising the volume above 0 unmutes the device.
  void setVolume(double volume);
  void setMuted(bool muted);

  void attachToDefaultDevice();
  void refresh();

 private:
  SystemVolumeController(MainQueue& queue, AudioHardware& hardware, std::shared_ptr<LogSink> logs);
  AudioObjectPropertyListenerBlock makeListener(void (SystemVolumeController::*action)());

  MainQueue& queue_;
  AudioHardware& hardware_;
  Observable<double> volume_{0.0};
  Observable<bool> isMuted_{false};
  Observable<bool> isAdjustable_{true};
  AudioObjectID deviceID_ = kAudioObjectUnknown;
  std::vector<std::pair<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>>
      deviceListeners_;
  AudioObjectPropertyListenerBlock defaultDeviceListener_;
  AudioObjectPropertyAddress defaultDeviceAddress_{kAudioHardwarePropertyDefaultOutputDevice,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain};
  Logger logger_;
};

}  // namespace quellix
