#include "audio/SnapshotProperties.h"

#include <algorithm>

namespace quellix {

std::optional<PropertyValue> snapshotPropertyValue(
    const pulse::AudioSnapshot& snapshot, AudioObjectID object,
    const AudioObjectPropertyAddress& address,
    const std::function<std::vector<AudioObjectID>(AudioObjectPropertySelector)>& ownObjects,
    OSStatus& status, bool& found) {
  const auto selector = address.mSelector;
  const bool global = address.mScope == kAudioObjectPropertyScopeGlobal;
  const bool output = address.mScope == kAudioDevicePropertyScopeOutput;
  status = kAudioHardwareUnknownPropertyError;
  found = true;

  if (object == kAudioObjectSystemObject) {
    if (!snapshot.connected) {
      status = kAudioHardwareNotRunningError;
      return std::nullopt;
    }
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioHardwarePropertyProcessObjectList) {
      std::vector<AudioObjectID> ids;
      for (const auto& process : snapshot.processes) {
        ids.push_back(process.id);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDevices) {
      std::vector<AudioObjectID> ids = ownObjects(selector);
      for (const auto& device : snapshot.devices) {
        ids.push_back(device.id);
      }
      std::sort(ids.begin(), ids.end());
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyTapList) {
      return PropertyValue::list(ownObjects(selector));
    }
    if (selector == kAudioHardwarePropertyDefaultOutputDevice) {
      return PropertyValue::of(snapshot.defaultOutput);
    }
    return std::nullopt;
  }

  if (const auto* process = snapshot.process(object)) {
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

  if (const auto* device = snapshot.device(object)) {
    if (global && selector == kAudioDevicePropertyDeviceUID) {
      return PropertyValue::text(device->uid);
    }
    if (global && selector == kAudioObjectPropertyName) {
      return PropertyValue::text(device->name);
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
  found = false;
  status = snapshot.connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
  return std::nullopt;
}

std::optional<PropertyValue> tapPropertyValue(Float64 sampleRate,
                                              const AudioObjectPropertyAddress& address) {
  if (address.mScope == kAudioObjectPropertyScopeGlobal &&
      address.mSelector == kAudioTapPropertyFormat) {
    return PropertyValue::of(AudioStreamBasicDescription{
        sampleRate, kAudioFormatLinearPCM, kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, 8, 1,
        8, 2, 32, 0});
  }
  return std::nullopt;
}

std::optional<PropertyValue> aggregatePropertyValue(const std::string& uid, Float64 sampleRate,
                                                    const AudioObjectPropertyAddress& address) {
  if (address.mScope != kAudioObjectPropertyScopeGlobal) {
    return std::nullopt;
  }
  if (address.mSelector == kAudioDevicePropertyDeviceUID) {
    return PropertyValue::text(uid);
  }
  if (address.mSelector == kAudioDevicePropertyNominalSampleRate) {
    return PropertyValue::of(sampleRate);
  }
  return std::nullopt;
}

OSStatus SnapshotBackend::getPropertyDataSize(AudioObjectID object,
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

OSStatus SnapshotBackend::getPropertyData(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address, UInt32,
                                          const void*, UInt32& ioSize, void* outData) {
  OSStatus status = kAudioHardwareNoError;
  const auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  return value->deliver(ioSize, outData);
}

bool SnapshotBackend::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
  OSStatus status = kAudioHardwareNoError;
  return propertyValue(object, address, status).has_value();
}

}  // namespace quellix
