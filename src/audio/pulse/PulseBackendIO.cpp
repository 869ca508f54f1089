// Aggregate devices and their IO paths.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>

namespace quellix {

using pulse::MainloopLock;

std::optional<PulseIOPath::Statistics> PulseBackend::ioStatistics(AudioObjectID aggregate) const {
  std::lock_guard lock(objectsMutex_);
  const auto found = aggregates_.find(aggregate);
  if (found == aggregates_.end()) {
    return std::nullopt;
  }
  for (const auto& [id, proc] : found->second.procs) {
    if (proc.path) {
      return proc.path->statistics();
    }
  }
  return std::nullopt;
}
OSStatus PulseBackend::createAggregateDevice(const CFDictionary& description,
                                             AudioObjectID& outDevice) {
  const auto current = snapshot();
  if (!current->connected) {
    return kAudioHardwareNotRunningError;
  }
  auto text = [&](const char* key) {
    const auto found = description.find(key);
    return found != description.end() && found->is_string() ? found->get<std::string>()
                                                            : std::string();
  };
  Aggregate aggregate;
  aggregate.uid = text(kAudioAggregateDeviceUIDKey);
  aggregate.mainSinkName = text(kAudioAggregateDeviceMainSubDeviceKey);
  if (aggregate.uid.empty() || current->deviceWithUID(aggregate.mainSinkName) == nullptr) {
    return kAudioHardwareBadDeviceError;
  }
  std::string tapUUID;
  if (const auto taps = description.find(kAudioAggregateDeviceTapListKey);
      taps != description.end() && taps->is_array() && !taps->empty() && (*taps)[0].is_object()) {
    const auto uid = (*taps)[0].find(kAudioSubTapUIDKey);
    tapUUID = uid != (*taps)[0].end() && uid->is_string() ? uid->get<std::string>() : "";
  }
  {
    MainloopLock lock(mainloop_);
    std::lock_guard objectsLock(objectsMutex_);
    const auto tap = std::find_if(taps_.begin(), taps_.end(),
                                  [&](const auto& entry) { return entry.second.uuid == tapUUID; });
    if (tap == taps_.end()) {
      return kAudioHardwareBadObjectError;
    }
    aggregate.tap = tap->first;
    aggregate.id = model_.allocateObjectID();
    outDevice = aggregate.id;
    aggregates_.emplace(aggregate.id, std::move(aggregate));
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::destroyAggregateDevice(AudioObjectID device) {
  std::map<AudioDeviceIOProcID, IOProc> procs;
  {
    std::lock_guard lock(objectsMutex_);
    const auto found = aggregates_.find(device);
    if (found == aggregates_.end()) {
      return lostWithServer_.erase(device) > 0 ? kAudioHardwareNoError
                                               : kAudioHardwareBadDeviceError;
    }
    procs = std::move(found->second.procs);
    aggregates_.erase(found);
  }
  procs.clear();  // stops any IO still running, outside the lock
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::createIOProcID(AudioObjectID device, MainQueue*, AudioDeviceIOBlock block,
                                      AudioDeviceIOProcID& outProc) {
  std::lock_guard lock(objectsMutex_);
  const auto found = aggregates_.find(device);
  if (found == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  outProc = reinterpret_cast<AudioDeviceIOProcID>(++lastIOProcID_);
  found->second.procs.emplace(outProc, IOProc{std::move(block), false, nullptr});
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::startDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  MainloopLock lock(mainloop_);
  AudioObjectID tap = kAudioObjectUnknown;
  {
    std::lock_guard objectsLock(objectsMutex_);
    const auto aggregate = aggregates_.find(device);
    if (aggregate == aggregates_.end()) {
      return kAudioHardwareBadDeviceError;
    }
    const auto ioProc = aggregate->second.procs.find(proc);
    if (ioProc == aggregate->second.procs.end() || taps_.count(aggregate->second.tap) == 0) {
      return kAudioHardwareIllegalOperationError;
    }
    if (ioProc->second.started) {
      return kAudioHardwareNoError;
    }
    ioProc->second.started = true;
    tap = aggregate->second.tap;
  }
  // In the tap's lane: the monitor it records is there once the tap's creation is answered.
  OperationRunner::Operation start;
  start.description = "Starting the IO of device #" + std::to_string(device);
  start.start = [this, device, proc](Finish finish) {
    return launchIO(device, proc, std::move(finish));
  };
  submit(tapLane(tap), std::move(start));
  return kAudioHardwareNoError;
}

PulseBackend::InFlight PulseBackend::launchIO(AudioObjectID device, AudioDeviceIOProcID proc,
                                              Finish finish) {
  bool launched = true;  // stopped or gone meanwhile: nothing left to start
  {
    std::lock_guard lock(objectsMutex_);
    const auto aggregate = aggregates_.find(device);
    const auto tap =
        aggregate != aggregates_.end() ? taps_.find(aggregate->second.tap) : taps_.end();
    if (tap != taps_.end()) {
      const auto ioProc = aggregate->second.procs.find(proc);
      if (ioProc != aggregate->second.procs.end() && ioProc->second.started &&
          !ioProc->second.path) {
        PulseIOPath::Config config;
        config.server = options_.server;
        config.sourceName = tap->second.sinkName + ".monitor";
        config.sinkName = aggregate->second.mainSinkName;
        config.sampleRate = tap->second.sampleRate;
        config.block = ioProc->second.block;
        // The path connects on its own thread and reports a failure from there.
        config.onStartFailed = [logger = logger_, device] {
          logger.error("Starting the IO of device #" + std::to_string(device) +
                       " failed: its streams did not connect");
        };
        ioProc->second.path = PulseIOPath::launch(std::move(config));
        launched = ioProc->second.path != nullptr;
      }
    }
  }
  // Outside the lock: the lane's next operation starts from here.
  finish(launched);
  return nullptr;
}

OSStatus PulseBackend::stopDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  std::unique_ptr<PulseIOPath> path;
  {
    std::lock_guard lock(objectsMutex_);
    const auto aggregate = aggregates_.find(device);
    if (aggregate == aggregates_.end()) {
      return lostWithServer_.count(device) > 0 ? kAudioHardwareNoError
                                               : kAudioHardwareBadDeviceError;
    }
    const auto ioProc = aggregate->second.procs.find(proc);
    if (ioProc == aggregate->second.procs.end()) {
      return kAudioHardwareIllegalOperationError;
    }
    ioProc->second.started = false;
    path = std::move(ioProc->second.path);
  }
  return kAudioHardwareNoError;  // the path stops as it goes, outside the lock
}

OSStatus PulseBackend::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID proc) {
  IOProc removed;
  {
    std::lock_guard lock(objectsMutex_);
    const auto aggregate = aggregates_.find(device);
    if (aggregate == aggregates_.end()) {
      return lostWithServer_.count(device) > 0 ? kAudioHardwareNoError
                                               : kAudioHardwareBadDeviceError;
    }
    const auto ioProc = aggregate->second.procs.find(proc);
    if (ioProc == aggregate->second.procs.end()) {
      return kAudioHardwareIllegalOperationError;
    }
    removed = std::move(ioProc->second);
    aggregate->second.procs.erase(ioProc);
  }
  return kAudioHardwareNoError;
}
}  // namespace quellix
