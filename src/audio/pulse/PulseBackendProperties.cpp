// The layer's property queries, answered from the model without a round trip.
#include "audio/pulse/PulseBackend.h"

#include <pulse/pulseaudio.h>

#include "audio/PropertyValue.h"
#include "audio/pulse/PulseBackendParts.h"
#include "audio/pulse/PulseRecords.h"

namespace quellix {

using pulse::AudioSnapshot;
using pulse::kMuteAddress;
using pulse::kVolumeAddress;
using pulse::MainloopLock;
using pulse::scaledVolume;

std::optional<PropertyValue> PulseBackend::propertyValue(AudioObjectID object,
                                                         const AudioObjectPropertyAddress& address,
                                                         OSStatus& status) const {
  const AudioSnapshot* current = &currentSnapshot();
  const auto selector = address.mSelector;
  const bool global = address.mScope == kAudioObjectPropertyScopeGlobal;
  const bool output = address.mScope == kAudioDevicePropertyScopeOutput;
  status = kAudioHardwareUnknownPropertyError;

  if (object == kAudioObjectSystemObject) {
    if (!current->connected) {
      status = kAudioHardwareNotRunningError;
      return std::nullopt;
    }
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioHardwarePropertyProcessObjectList) {
      std::vector<AudioObjectID> ids;
      for (const auto& process : current->processes) {
        ids.push_back(process.id);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDevices) {
      std::vector<AudioObjectID> ids;
      for (const auto& device : current->devices) {
        ids.push_back(device.id);
      }
      std::lock_guard lock(objectsMutex_);
      for (const auto& entry : aggregates_) {
        ids.push_back(entry.first);
      }
      std::sort(ids.begin(), ids.end());
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyTapList) {
      std::vector<AudioObjectID> ids;
      std::lock_guard lock(objectsMutex_);
      for (const auto& entry : taps_) {
        ids.push_back(entry.first);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDefaultOutputDevice) {
      return PropertyValue::of(current->defaultOutput);
    }
    return std::nullopt;
  }

  if (const auto* process = current->process(object)) {
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioProcessPropertyPID)
      return PropertyValue::of(process->pid);
    if (selector == kAudioProcessPropertyBundleID)
      return PropertyValue::text(process->bundleID);
    if (selector == kAudioProcessPropertyApplicationName)
      return PropertyValue::text(process->applicationName);
    if (selector == kAudioProcessPropertyIsRunning) {
      return PropertyValue::of(static_cast<UInt32>(process->running ? 1 : 0));
    }
    if (selector == kAudioProcessPropertyIsRunningOutput) {
      return PropertyValue::of(static_cast<UInt32>(process->runningOutput ? 1 : 0));
    }
    return std::nullopt;
  }

  if (const auto* device = current->device(object)) {
    if (global && selector == kAudioDevicePropertyDeviceUID) {
      return PropertyValue::text(device->uid);
    }
    if (global && selector == kAudioDevicePropertyNominalSampleRate) {
      return PropertyValue::of(device->sampleRate);
    }
    if (output && selector == kAudioHardwareServiceDeviceProperty_VirtualMainVolume) {
      return PropertyValue::of(device->volume);
    }
    if (output && selector == kAudioDevicePropertyMute) {
      return PropertyValue::of(static_cast<UInt32>(device->mute ? 1 : 0));
    }
    return std::nullopt;
  }

  {
    std::lock_guard lock(objectsMutex_);
    if (const auto tap = taps_.find(object); tap != taps_.end()) {
      if (global && selector == kAudioTapPropertyFormat) {
        const Float64 rate = tap->second.sampleRate;
        return PropertyValue::of(AudioStreamBasicDescription{
            rate, kAudioFormatLinearPCM, kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, 8, 1,
            8, 2, 32, 0});
      }
      return std::nullopt;
    }
    if (const auto aggregate = aggregates_.find(object); aggregate != aggregates_.end()) {
      if (global && selector == kAudioDevicePropertyDeviceUID) {
        return PropertyValue::text(aggregate->second.uid);
      }
      if (global && selector == kAudioDevicePropertyNominalSampleRate) {
        const auto tap = taps_.find(aggregate->second.tap);
        return PropertyValue::of(
            static_cast<Float64>(tap != taps_.end() ? tap->second.sampleRate : 0));
      }
      return std::nullopt;
    }
  }
  status = current->connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
  return std::nullopt;
}

OSStatus PulseBackend::getPropertyDataSize(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, UInt32,
                                           const void*, UInt32& outSize) {
  OSStatus status = kAudioHardwareNoError;
  const auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  outSize = value->size();
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::getPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, UInt32,
                                       const void*, UInt32& ioSize, void* outData) {
  OSStatus status = kAudioHardwareNoError;
  auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  return value->deliver(ioSize, outData);
}

bool PulseBackend::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
  OSStatus status = kAudioHardwareNoError;
  return propertyValue(object, address, status).has_value();
}

OSStatus PulseBackend::setPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, UInt32,
                                       const void*, UInt32 size, const void* data) {
  const auto current = snapshot();
  const auto* device = current->device(object);
  if (device == nullptr) {
    if (!current->connected) {
      return kAudioHardwareNotRunningError;
    }
    return current->process(object) != nullptr || object == kAudioObjectSystemObject
               ? kAudioHardwareUnknownPropertyError
               : kAudioHardwareBadObjectError;
  }
  const std::uint32_t sinkIndex = device->sinkIndex;
  if (address == kVolumeAddress) {
    if (size != sizeof(Float32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    Float32 volume = 0;
    std::memcpy(&volume, data, sizeof volume);
    MainloopLock lock(mainloop_);
    if (!ready_) {
      return kAudioHardwareNotRunningError;
    }
    const auto sink = model_.sinks().find(sinkIndex);
    if (sink == model_.sinks().end()) {
      return kAudioHardwareBadObjectError;
    }
    const pa_cvolume channels = scaledVolume(sink->second.channelVolumes, volume);
    writeSink(
        sinkIndex, "Setting the volume",
        [channels](pulse::SinkInfo& info) {
          info.channelVolumes.assign(channels.values, channels.values + channels.channels);
        },
        [sinkIndex, channels](pa_context* context, auto* reply) {
          return pa_context_set_sink_volume_by_index(context, sinkIndex, &channels,
                                                     &PulseBackend::successReply, reply);
        });
    return kAudioHardwareNoError;
  }
  if (address == kMuteAddress) {
    if (size != sizeof(UInt32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    UInt32 mute = 0;
    std::memcpy(&mute, data, sizeof mute);
    MainloopLock lock(mainloop_);
    if (!ready_) {
      return kAudioHardwareNotRunningError;
    }
    if (model_.sinks().count(sinkIndex) == 0) {
      return kAudioHardwareBadObjectError;
    }
    writeSink(
        sinkIndex, "Setting the mute", [mute](pulse::SinkInfo& info) { info.mute = mute != 0; },
        [sinkIndex, mute](pa_context* context, auto* reply) {
          return pa_context_set_sink_mute_by_index(context, sinkIndex, mute != 0 ? 1 : 0,
                                                   &PulseBackend::successReply, reply);
        });
    return kAudioHardwareNoError;
  }
  return kAudioHardwareUnknownPropertyError;
}

OSStatus PulseBackend::addPropertyListener(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           MainQueue* queue,
                                           AudioObjectPropertyListenerBlock listener) {
  // The system object takes listeners even while the server is away: they fire once it is back.
  if (object != kAudioObjectSystemObject) {
    const auto current = snapshot();
    if (current->process(object) == nullptr && current->device(object) == nullptr) {
      return current->connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
    }
  }
  listeners_.add(object, address, queue, std::move(listener));
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::removePropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              MainQueue* queue,
                                              const AudioObjectPropertyListenerBlock& listener) {
  return listeners_.remove(object, address, queue, listener) ? kAudioHardwareNoError
                                                             : kAudioHardwareIllegalOperationError;
}

}  // namespace quellix
