// The layer's property queries, answered from the model without a round trip.
#include "audio/pulse/PulseBackend.h"

#include <pulse/pulseaudio.h>

#include "audio/PropertyValue.h"
#include "audio/SnapshotProperties.h"
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
  const AudioSnapshot& current = currentSnapshot();
  if (address == pulse::kOutputDeviceAddress) {
    if (const auto* process = current.process(object)) {
      std::lock_guard lock(objectsMutex_);
      const auto route = routes_.find(process->pid);
      return PropertyValue::text(route != routes_.end() ? route->second : std::string());
    }
  }
  bool found = false;
  auto answer = snapshotPropertyValue(
      current, object, address,
      [&](AudioObjectPropertySelector selector) {
        std::vector<AudioObjectID> ids;
        std::lock_guard lock(objectsMutex_);
        if (selector == kAudioHardwarePropertyTapList) {
          for (const auto& entry : taps_) {
            ids.push_back(entry.first);
          }
        } else {
          for (const auto& entry : aggregates_) {
            ids.push_back(entry.first);
          }
        }
        return ids;
      },
      status, found);
  if (found) {
    return answer;
  }
  std::lock_guard lock(objectsMutex_);
  if (const auto tap = taps_.find(object); tap != taps_.end()) {
    status = kAudioHardwareUnknownPropertyError;
    return tapPropertyValue(tap->second.sampleRate, address);
  }
  if (const auto aggregate = aggregates_.find(object); aggregate != aggregates_.end()) {
    status = kAudioHardwareUnknownPropertyError;
    const auto tap = taps_.find(aggregate->second.tap);
    return aggregatePropertyValue(aggregate->second.uid,
                                  tap != taps_.end() ? tap->second.sampleRate : 0, address);
  }
  return std::nullopt;
}

OSStatus PulseBackend::setPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, UInt32,
                                       const void*, UInt32 size, const void* data) {
  const auto current = snapshot();
  if (const auto* process = current->process(object)) {
    if (address != pulse::kOutputDeviceAddress) {
      return kAudioHardwareUnknownPropertyError;
    }
    if (size != sizeof(CFStringRef)) {
      return kAudioHardwareBadPropertySizeError;
    }
    CFStringRef uid = nullptr;
    std::memcpy(&uid, data, sizeof uid);
    return routeProcess(process->pid, std::string(CFStringView(uid)));
  }
  const auto* device = current->device(object);
  if (device == nullptr) {
    if (!current->connected) {
      return kAudioHardwareNotRunningError;
    }
    return object == kAudioObjectSystemObject ? kAudioHardwareUnknownPropertyError
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
