#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "audio/AudioBackend.h"
#include "audio/PropertyValue.h"
#include "audio/pulse/PulseModel.h"

namespace quellix {

// A backend that answers every read from one function: the size, the data and whether the
// property exists are three views of the same value.
class SnapshotBackend : public AudioBackend {
 public:
  OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               UInt32 qualifierSize, const void* qualifier, UInt32& outSize) final;
  OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 qualifierSize, const void* qualifier, UInt32& ioSize,
                           void* outData) final;
  bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) final;

 protected:
  // The value at `address`, or none with `status` saying why.
  virtual std::optional<PropertyValue> propertyValue(AudioObjectID object,
                                                     const AudioObjectPropertyAddress& address,
                                                     OSStatus& status) const = 0;
};

// The property answers a backend gives from its model of the server, the same for every
// server: the system object, processes and devices of `snapshot`, and the backend's own taps
// and aggregate devices, which `ownObjects` lists by the system object's list selector
// (kAudioHardwarePropertyTapList, kAudioHardwarePropertyDevices). `found` tells whether
// `object` is one of the snapshot's; when it is not, the backend asks its own objects.
std::optional<PropertyValue> snapshotPropertyValue(
    const pulse::AudioSnapshot& snapshot, AudioObjectID object,
    const AudioObjectPropertyAddress& address,
    const std::function<std::vector<AudioObjectID>(AudioObjectPropertySelector)>& ownObjects,
    OSStatus& status, bool& found);

// A tap's format: interleaved float32 stereo at `sampleRate`.
std::optional<PropertyValue> tapPropertyValue(Float64 sampleRate,
                                              const AudioObjectPropertyAddress& address);
std::optional<PropertyValue> aggregatePropertyValue(const std::string& uid, Float64 sampleRate,
                                                    const AudioObjectPropertyAddress& address);

}  // namespace quellix
