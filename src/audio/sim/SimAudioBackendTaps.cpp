// The simulated taps, aggregate devices and their IO, and the render step that mixes them.
#include "audio/sim/SimAudioBackend.h"

#include <algorithm>
#include <cstring>

namespace quellix {
namespace {

constexpr UInt32 kTapChannels = 2;

std::string stringMember(const CFDictionary& dictionary, const char* key) {
  const auto found = dictionary.find(key);
  return found != dictionary.end() && found->is_string() ? found->get<std::string>()
                                                         : std::string();
}

}  // namespace

OSStatus SimAudioBackend::createProcessTap(const CATapDescription& description,
                                           AudioObjectID& outTap) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::createProcessTap)) {
    return *fault;
  }
  for (const AudioObjectID process : description.processes()) {
    if (processes_.count(process) == 0) {
      return kAudioHardwareBadObjectError;
    }
  }
  outTap = nextObjectID();
  taps_.emplace(outTap, description);
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyTapList);
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::destroyProcessTap(AudioObjectID tap) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::destroyProcessTap)) {
    return *fault;
  }
  if (taps_.erase(tap) == 0) {
    return kAudioHardwareBadObjectError;
  }
  for (auto& [id, aggregate] : aggregates_) {
    std::erase(aggregate.taps, tap);
  }
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyTapList);
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::createAggregateDevice(const CFDictionary& description,
                                                AudioObjectID& outDevice) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::createAggregateDevice)) {
    return *fault;
  }
  Aggregate aggregate;
  aggregate.description = description;
  aggregate.uid = stringMember(description, kAudioAggregateDeviceUIDKey);
  aggregate.mainSubDeviceUID = stringMember(description, kAudioAggregateDeviceMainSubDeviceKey);
  if (aggregate.uid.empty() || !deviceWithUID(aggregate.mainSubDeviceUID)) {
    return kAudioHardwareBadDeviceError;
  }
  if (const auto tapList = description.find(kAudioAggregateDeviceTapListKey);
      tapList != description.end() && tapList->is_array()) {
    for (const auto& entry : *tapList) {
      const std::string uuid = entry.is_object() ? stringMember(entry, kAudioSubTapUIDKey) : "";
      const auto tap = std::find_if(taps_.begin(), taps_.end(), [&](const auto& candidate) {
        return candidate.second.UUID().uuidString() == uuid;
      });
      if (tap == taps_.end()) {
        return kAudioHardwareBadObjectError;
      }
      aggregate.taps.push_back(tap->first);
    }
  }
  outDevice = nextObjectID();
  aggregates_.emplace(outDevice, std::move(aggregate));
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::destroyAggregateDevice(AudioObjectID device) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::destroyAggregateDevice)) {
    return *fault;
  }
  if (aggregates_.erase(device) == 0) {
    return kAudioHardwareBadDeviceError;
  }
  fire(kAudioObjectSystemObject, kAudioHardwarePropertyDevices);
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::createIOProcID(AudioObjectID device, MainQueue*, AudioDeviceIOBlock block,
                                         AudioDeviceIOProcID& outProc) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::createIOProcID)) {
    return *fault;
  }
  auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  outProc = reinterpret_cast<AudioDeviceIOProcID>(++lastIOProcID_);
  aggregate->second.ioProcs.emplace(outProc, IOProc{std::move(block), false});
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::startDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::startDevice)) {
    return *fault;
  }
  auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  auto ioProc = aggregate->second.ioProcs.find(proc);
  if (ioProc == aggregate->second.ioProcs.end()) {
    return kAudioHardwareIllegalOperationError;
  }
  ioProc->second.started = true;
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::stopDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::stopDevice)) {
    return *fault;
  }
  auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  auto ioProc = aggregate->second.ioProcs.find(proc);
  if (ioProc == aggregate->second.ioProcs.end()) {
    return kAudioHardwareIllegalOperationError;
  }
  ioProc->second.started = false;
  return kAudioHardwareNoError;
}

OSStatus SimAudioBackend::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID proc) {
  std::lock_guard lock(mutex_);
  if (auto fault = injectedFault(Call::destroyIOProcID)) {
    return *fault;
  }
  auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  return aggregate->second.ioProcs.erase(proc) > 0 ? kAudioHardwareNoError
                                                   : kAudioHardwareIllegalOperationError;
}

bool SimAudioBackend::isMutedByTap(AudioObjectID process) const {
  for (const auto& [id, description] : taps_) {
    if (description.muteBehavior() == CATapUnmuted) {
      continue;
    }
    const auto& tapped = description.processes();
    if (std::find(tapped.begin(), tapped.end(), process) == tapped.end()) {
      continue;
    }
    if (description.muteBehavior() == CATapMuted) {
      return true;
    }
    // Muted-when-tapped: only while a started IO procedure reads the tap.
    for (const auto& [aggregateID, aggregate] : aggregates_) {
      const bool readsTap =
          std::find(aggregate.taps.begin(), aggregate.taps.end(), id) != aggregate.taps.end();
      const bool started = std::any_of(aggregate.ioProcs.begin(), aggregate.ioProcs.end(),
                                       [](const auto& entry) { return entry.second.started; });
      if (readsTap && started) {
        return true;
      }
    }
  }
  return false;
}

AudioObjectID SimAudioBackend::outputDeviceOf(const Process& process) const {
  if (!process.outputDeviceUID.empty()) {
    if (const auto chosen = deviceWithUID(process.outputDeviceUID)) {
      return *chosen;
    }
  }
  return defaultOutput_;
}

std::map<AudioObjectID, std::vector<float>> SimAudioBackend::render(UInt32 frames) {
  std::lock_guard lock(mutex_);
  std::map<AudioObjectID, std::vector<float>> outputs;
  for (const auto& [id, device] : devices_) {
    outputs[id].assign(static_cast<std::size_t>(frames) * std::max<UInt32>(device.channels, 1),
                       0.0f);
  }

  auto playInto = [&](std::vector<float>& samples, float level) {
    for (float& sample : samples) {
      sample += level;
    }
  };

  for (const auto& [id, process] : processes_) {
    auto output = outputs.find(outputDeviceOf(process));
    if (output != outputs.end() && process.runningOutput && !isMutedByTap(id)) {
      playInto(output->second, process.level);
    }
  }

  for (auto& [aggregateID, aggregate] : aggregates_) {
    const auto mainDevice = deviceWithUID(aggregate.mainSubDeviceUID);
    if (!mainDevice) {
      continue;
    }
    std::vector<float> input(static_cast<std::size_t>(frames) * kTapChannels, 0.0f);
    for (const AudioObjectID tap : aggregate.taps) {
      for (const AudioObjectID process : taps_.at(tap).processes()) {
        const auto found = processes_.find(process);
        if (found != processes_.end() && found->second.runningOutput) {
          playInto(input, found->second.level);
        }
      }
    }
    const UInt32 outChannels = std::max<UInt32>(devices_.at(*mainDevice).channels, 1);
    auto& mainOutput = outputs[*mainDevice];
    for (auto& [procID, ioProc] : aggregate.ioProcs) {
      if (!ioProc.started) {
        continue;
      }
      // The block sees silence it may overwrite, as a real device's output buffer.
      std::vector<float> blockOutput(static_cast<std::size_t>(frames) * outChannels, 0.0f);
      AudioBuffer inBuffer{kTapChannels, static_cast<UInt32>(input.size() * sizeof(float)),
                           input.data()};
      AudioBuffer outBuffer{outChannels, static_cast<UInt32>(blockOutput.size() * sizeof(float)),
                            blockOutput.data()};
      const AudioBufferList inList{1, &inBuffer};
      AudioBufferList outList{1, &outBuffer};
      const AudioTimeStamp time{};
      ioProc.block(&time, &inList, &time, &outList, &time);
      for (std::size_t i = 0; i < mainOutput.size(); ++i) {
        mainOutput[i] += blockOutput[i];
      }
    }
  }
  return outputs;
}

}  // namespace quellix
