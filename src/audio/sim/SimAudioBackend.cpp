#include "audio/sim/SimAudioBackend.h"

#include <algorithm>
#include <cstring>

#include "support/MainQueue.h"

namespace quellix {
namespace {

constexpr UInt32 kTapChannels = 2;
constexpr Float64 kFallbackSampleRate = 48000.0;

}  // namespace

SimAudioBackend::SimAudioBackend() = default;

AudioObjectID SimAudioBackend::nextObjectID() {
  return ++lastObjectID_;
}

AudioObjectID SimAudioBackend::addProcess(Process process) {
  std::lock_guard lock(mutex_);
  const AudioObjectID id = nextObjectID();
  processes_.emplace(id, std::move(process));
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
  return id;
}

void SimAudioBackend::removeProcess(AudioObjectID process) {
  std::lock_guard lock(mutex_);
  if (processes_.erase(process) > 0) {
    fire(kAudioObjectSystemObject, kAudioHardwarePropertyProcessObjectList);
  }
}

void SimAudioBackend::setProcessRunning(AudioObjectID process, bool running, bool runningOutput) {
  std::lock_guard lock(mutex_);
  auto found = processes_.find(process);
  if (found == processes_.end()) {
    return;
  }
  const bool runningChanged = found->second.running != running;
  const bool outputChanged = found->second.runningOutput != runningOutput;
  found->second.running = running;
  found->second.runningOutput = runningOutput;
  if (runningChanged) {
    fire(process, kAudioProcessPropertyIsRunning);
  }
  if (outputChanged) {
    fire(process, kAudioProcessPropertyIsRunningOutput);
  }
}

void SimAudioBackend::setProcessLevel(AudioObjectID process, float level) {
  std::lock_guard lock(mutex_);
  if (auto found = processes_.find(process); found != processes_.end()) {
    found->second.level = level;
  }
}

AudioObjectID SimAudioBackend::addDevice(Device device) {
  std::lock_guard lock(mutex_);
  const AudioObjectID id = nextObjectID();
  devices_.emplace(id, std::move(device));
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
  return id;
}

void SimAudioBackend::removeDevice(AudioObjectID device) {
  std::lock_guard lock(mutex_);
  if (devices_.erase(device) == 0) {
    return;
  }
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
  if (defaultOutput_ == device) {
    defaultOutput_ = kAudioObjectUnknown;
    fire(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
  }
}

void SimAudioBackend::setDefaultOutputDevice(AudioObjectID device) {
  std::lock_guard lock(mutex_);
  if (defaultOutput_ != device) {
    defaultOutput_ = device;
    fire(kAudioObjectSystemObject, kAudioHardwarePropertyDefaultOutputDevice);
  }
}

void SimAudioBackend::setDeviceVolume(AudioObjectID device, Float32 volume) {
  std::lock_guard lock(mutex_);
  auto found = devices_.find(device);
  if (found != devices_.end() && found->second.volume != volume) {
    found->second.volume = volume;
    fire(device, kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
         kAudioDevicePropertyScopeOutput);
  }
}

void SimAudioBackend::setDeviceMuteValue(AudioObjectID device, UInt32 muteValue) {
  std::lock_guard lock(mutex_);
  auto found = devices_.find(device);
  if (found != devices_.end() && found->second.muteValue != muteValue) {
    found->second.muteValue = muteValue;
    fire(device, kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput);
  }
}

void SimAudioBackend::failCall(Call call, OSStatus status) {
  std::lock_guard lock(mutex_);
  callFaults_[call] = status;
}

void SimAudioBackend::failProperty(AudioObjectID object, AudioObjectPropertySelector selector,
                                   Call call, OSStatus status) {
  std::lock_guard lock(mutex_);
  propertyFaults_[{object, selector, call}] = status;
}

void SimAudioBackend::overrideReportedSize(AudioObjectID object,
                                           AudioObjectPropertySelector selector, UInt32 size) {
  std::lock_guard lock(mutex_);
  reportedSizes_[{object, selector}] = size;
}

void SimAudioBackend::clearFaults() {
  std::lock_guard lock(mutex_);
  callFaults_.clear();
  propertyFaults_.clear();
  reportedSizes_.clear();
}

std::size_t SimAudioBackend::callCount(Call call) const {
  std::lock_guard lock(mutex_);
  const auto found = callCounts_.find(call);
  return found == callCounts_.end() ? 0 : found->second;
}

std::size_t SimAudioBackend::listenerCount(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address) const {
  return listeners_.count(object, address);
}

std::vector<SimAudioBackend::TapState> SimAudioBackend::taps() const {
  std::lock_guard lock(mutex_);
  std::vector<TapState> result;
  for (const auto& [id, description] : taps_) {
    result.push_back({id, description});
  }
  return result;
}

std::vector<SimAudioBackend::AggregateState> SimAudioBackend::aggregates() const {
  std::lock_guard lock(mutex_);
  std::vector<AggregateState> result;
  for (const auto& [id, aggregate] : aggregates_) {
    const auto started = static_cast<std::size_t>(
        std::count_if(aggregate.ioProcs.begin(), aggregate.ioProcs.end(),
                      [](const auto& entry) { return entry.second.started; }));
    result.push_back({id, aggregate.description, aggregate.ioProcs.size(), started});
  }
  return result;
}

std::optional<SimAudioBackend::Device> SimAudioBackend::device(AudioObjectID device) const {
  std::lock_guard lock(mutex_);
  const auto found = devices_.find(device);
  return found == devices_.end() ? std::nullopt : std::optional<Device>(found->second);
}

std::optional<OSStatus> SimAudioBackend::injectedFault(Call call) {
  ++callCounts_[call];
  const auto found = callFaults_.find(call);
  return found == callFaults_.end() ? std::nullopt : std::optional<OSStatus>(found->second);
}

std::optional<OSStatus> SimAudioBackend::injectedFault(Call call, AudioObjectID object,
                                                       AudioObjectPropertySelector selector) {
  if (auto fault = injectedFault(call)) {
    return fault;
  }
  for (const AudioObjectID candidate : {object, kAudioObjectUnknown}) {
    const auto found = propertyFaults_.find({candidate, selector, call});
    if (found != propertyFaults_.end()) {
      return found->second;
    }
  }
  return std::nullopt;
}

std::vector<AudioObjectID> SimAudioBackend::deviceList() const {
  std::vector<AudioObjectID> ids;
  for (const auto& entry : devices_) {
    ids.push_back(entry.first);
  }
  for (const auto& entry : aggregates_) {
    ids.push_back(entry.first);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::optional<AudioObjectID> SimAudioBackend::deviceWithUID(const std::string& uid) const {
  for (const auto& [id, device] : devices_) {
    if (device.uid == uid) {
      return id;
    }
  }
  return std::nullopt;
}

std::optional<PropertyValue> SimAudioBackend::propertyValue(
    AudioObjectID object, const AudioObjectPropertyAddress& address, OSStatus& status) const {
  status = kAudioHardwareUnknownPropertyError;
  const auto selector = address.mSelector;
  const bool global = address.mScope == kAudioObjectPropertyScopeGlobal;
  const bool output = address.mScope == kAudioDevicePropertyScopeOutput;

  if (object == kAudioObjectSystemObject) {
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioHardwarePropertyProcessObjectList) {
      std::vector<AudioObjectID> ids;
      for (const auto& entry : processes_) {
        ids.push_back(entry.first);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDevices) {
      return PropertyValue::list(deviceList());
    }
    if (selector == kAudioHardwarePropertyTapList) {
      std::vector<AudioObjectID> ids;
      for (const auto& entry : taps_) {
        ids.push_back(entry.first);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDefaultOutputDevice) {
      return PropertyValue::of(defaultOutput_);
    }
    return std::nullopt;
  }

  if (const auto process = processes_.find(object); process != processes_.end()) {
    const Process& p = process->second;
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioProcessPropertyPID)
      return PropertyValue::of(p.pid);
    if (selector == kAudioProcessPropertyBundleID)
      return PropertyValue::text(p.bundleID);
    if (selector == kAudioProcessPropertyApplicationName)
      return PropertyValue::text(p.applicationName);
    if (selector == kAudioProcessPropertyOutputDeviceUID)
      return PropertyValue::text(p.outputDeviceUID);
    if (selector == kAudioProcessPropertyIsRunning) {
      return PropertyValue::of(static_cast<UInt32>(p.running ? 1 : 0));
    }
    if (selector == kAudioProcessPropertyIsRunningOutput) {
      return PropertyValue::of(static_cast<UInt32>(p.runningOutput ? 1 : 0));
    }
    return std::nullopt;
  }

  if (const auto device = devices_.find(object); device != devices_.end()) {
    const Device& d = device->second;
    if (global && selector == kAudioDevicePropertyDeviceUID)
      return PropertyValue::text(d.uid);
    if (global && selector == kAudioObjectPropertyName)
      return PropertyValue::text(d.name);
    if (global && selector == kAudioDevicePropertyNominalSampleRate && d.sampleRate) {
      return PropertyValue::of(*d.sampleRate);
    }
    if (output && selector == kAudioHardwareServiceDeviceProperty_VirtualMainVolume &&
        d.hasVolume) {
      return PropertyValue::of(d.volume);
    }
    if (output && selector == kAudioDevicePropertyMute)
      return PropertyValue::of(d.muteValue);
    return std::nullopt;
  }

  if (const auto aggregate = aggregates_.find(object); aggregate != aggregates_.end()) {
    if (global && selector == kAudioDevicePropertyDeviceUID)
      return PropertyValue::text(aggregate->second.uid);
    if (global && selector == kAudioDevicePropertyNominalSampleRate) {
      const auto main = deviceWithUID(aggregate->second.mainSubDeviceUID);
      const auto rate = main ? devices_.at(*main).sampleRate : std::nullopt;
      return PropertyValue::of(rate.value_or(kFallbackSampleRate));
    }
    return std::nullopt;
  }

  if (taps_.count(object) > 0) {
    if (global && selector == kAudioTapPropertyFormat) {
      const auto outputDevice = devices_.find(defaultOutput_);
      const Float64 rate = outputDevice != devices_.end() && outputDevice->second.sampleRate
                               ? *outputDevice->second.sampleRate
                               : kFallbackSampleRate;
      const AudioStreamBasicDescription format{rate,
                                               kAudioFormatLinearPCM,
                                               kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked,
                                               4 * kTapChannels,
                                               1,
                                               4 * kTapChannels,
                                               kTapChannels,
                                               32,
                                               0};
      return PropertyValue::of(format);
    }
    return std::nullopt;
  }

  status = kAudioHardwareBadObjectError;
  return std::nullopt;
}

OSStatus SimAudioBackend::getPropertyDataSize(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address, UInt32,
                                              const void*, UInt32& outSize) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::getPropertyDataSize, object, address.mSelector)) {
    return *fault;
  }
  OSStatus status = kAudioHardwareNoError;
  auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  const auto overridden = reportedSizes_.find({object, address.mSelector});
  outSize = overridden != reportedSizes_.end() ? overridden->second : value->size();
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::getPropertyData(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address, UInt32,
                                          const void*, UInt32& ioSize, void* outData) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::getPropertyData, object, address.mSelector)) {
    return *fault;
  }
  OSStatus status = kAudioHardwareNoError;
  auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  return value->deliver(ioSize, outData);
}

OSStatus SimAudioBackend::setPropertyData(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address, UInt32,
                                          const void*, UInt32 size, const void* data) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::setPropertyData, object, address.mSelector)) {
    return *fault;
  }
  if (auto process = processes_.find(object); process != processes_.end()) {
    if (address.mSelector != kAudioProcessPropertyOutputDeviceUID ||
        address.mScope != kAudioObjectPropertyScopeGlobal) {
      return kAudioHardwareUnknownPropertyError;
    }
    if (size != sizeof(CFStringRef)) {
      return kAudioHardwareBadPropertySizeError;
    }
    CFStringRef uid = nullptr;
    std::memcpy(&uid, data, sizeof uid);
    const std::string text(CFStringView(uid));
    if (process->second.outputDeviceUID != text) {
      process->second.outputDeviceUID = text;
      fire(object, kAudioProcessPropertyOutputDeviceUID);
    }
    return kAudioHardwareNoError;
  }
  auto device = devices_.find(object);
  if (device == devices_.end()) {
    return object == kAudioObjectSystemObject ? kAudioHardwareUnknownPropertyError
                                              : kAudioHardwareBadObjectError;
  }
  if (address.mScope != kAudioDevicePropertyScopeOutput) {
    return kAudioHardwareUnknownPropertyError;
  }
  if (address.mSelector == kAudioHardwareServiceDeviceProperty_VirtualMainVolume &&
      device->second.hasVolume) {
    if (size != sizeof(Float32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    Float32 volume = 0;
    std::memcpy(&volume, data, sizeof volume);
    setDeviceVolume(object, std::clamp(volume, 0.0f, 1.0f));
    return kAudioHardwareNoError;
  }
  if (address.mSelector == kAudioDevicePropertyMute) {
    if (size != sizeof(UInt32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    UInt32 mute = 0;
    std::memcpy(&mute, data, sizeof mute);
    setDeviceMuteValue(object, mute);
    return kAudioHardwareNoError;
  }
  return kAudioHardwareUnknownPropertyError;
}

bool SimAudioBackend::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
  std::lock_guard lock(mutex_);
  OSStatus status = kAudioHardwareNoError;
  return propertyValue(object, address, status).has_value();
}

OSStatus SimAudioBackend::addPropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              MainQueue* queue,
                                              AudioObjectPropertyListenerBlock listener) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::addPropertyListener, object, address.mSelector)) {
    return *fault;
  }
  const bool known = object == kAudioObjectSystemObject || processes_.count(object) > 0 ||
                     devices_.count(object) > 0 || aggregates_.count(object) > 0 ||
                     taps_.count(object) > 0;
  if (!known) {
    return kAudioHardwareBadObjectError;
  }
  listeners_.add(object, address, queue, std::move(listener));
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::removePropertyListener(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 MainQueue* queue,
                                                 const AudioObjectPropertyListenerBlock& listener) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::removePropertyListener, object, address.mSelector)) {
    return *fault;
  }
  return listeners_.remove(object, address, queue, listener) ? kAudioHardwareNoError
                                                             : kAudioHardwareIllegalOperationError;
}

void SimAudioBackend::fire(AudioObjectID object, AudioObjectPropertySelector selector,
                           AudioObjectPropertyScope scope) {
  listeners_.fire(object, {selector, scope, kAudioObjectPropertyElementMain});
}

}  // namespace quellix
