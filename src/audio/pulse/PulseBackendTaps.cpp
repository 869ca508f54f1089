// Taps, their streams' moves, aggregate devices and their IO.
#include "audio/pulse/PulseBackend.h"

#include <pulse/pulseaudio.h>

#include "audio/PropertyValue.h"
#include "audio/pulse/LeftoverTaps.h"
#include "audio/pulse/PulseBackendParts.h"
#include "audio/pulse/PulseRecords.h"
#include "support/BuildInfo.h"

namespace quellix {

using pulse::AudioSnapshot;
using pulse::backendOf;
using pulse::MainloopLock;

namespace {

// Only characters that survive the module argument's two levels of quoting.
std::string sanitizedLabel(const std::string& label) {
  std::string clean;
  for (const char c : label) {
    if (c != '\'' && c != '"' && c != '\\' && c != '\n') {
      clean += c;
    }
  }
  return clean;
}

struct MoveRequest {
  PulseBackend* backend;
  std::uint32_t sinkInput;
};

constexpr int kMaxMoveFailures = 5;

}  // namespace

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

void PulseBackend::moveCallback(pa_context* context, int success, void* userdata) {
  auto* request = static_cast<MoveRequest*>(userdata);
  if (context == request->backend->context_) {
    request->backend->onMoveDone(request->sinkInput, success != 0);
  }
  delete request;
}

void PulseBackend::onMoveDone(std::uint32_t sinkInput, bool success) {
  auto found = moves_.find(sinkInput);
  if (found == moves_.end()) {
    return;
  }
  found->second.inFlight = false;
  if (!success && ++found->second.failures == kMaxMoveFailures) {
    logger_.error("Stream #" + std::to_string(sinkInput) +
                  " refuses to move onto its tap; it stays audible");
  }
  // "Moved" is the server's word; its own report of the stream decides.
  requestInfo(context_, pulse::PulseModel::Kind::sinkInput, sinkInput);
}

void PulseBackend::keepStreamsOnTaps() {
  const auto current = snapshot();
  std::lock_guard lock(objectsMutex_);
  if (taps_.empty()) {
    return;
  }
  for (const auto& placement : current->sinkInputs) {
    if (placement.isOurIO || placement.pid == 0) {
      continue;
    }
    const auto tap = std::find_if(taps_.begin(), taps_.end(), [&](const auto& entry) {
      return entry.second.pids.count(placement.pid) > 0;
    });
    if (tap == taps_.end()) {
      continue;
    }
    const auto* sink = current->tapSinkWithUUID(tap->second.uuid);
    if (sink == nullptr) {
      continue;
    }
    Move& move = moves_[placement.index];
    if (placement.sink == sink->index) {
      continue;
    }
    if (move.inFlight || move.failures >= kMaxMoveFailures) {
      continue;
    }
    tap->second.originalSinks.try_emplace(placement.index, placement.sink);
    if (++move.attempts > 1) {
      repeatedMoves_.fetch_add(1, std::memory_order_relaxed);
    }
    move.inFlight = true;
    pa_operation_unref(pa_context_move_sink_input_by_index(context_, placement.index, sink->index,
                                                           &PulseBackend::moveCallback,
                                                           new MoveRequest{this, placement.index}));
  }
}

void PulseBackend::removeLeftovers() {
  const auto current = snapshot();
  for (const auto& tap : current->tapSinks) {
    if (pulse::isLeftover(tap)) {
      for (pa_operation* operation :
           pulse::removeLeftover(context_, tap, current->sinkInputs, model_.defaultSinkName(),
                                 nullptr, nullptr, logger_)) {
        pa_operation_unref(operation);
      }
    }
  }
}

OSStatus PulseBackend::createProcessTap(const CATapDescription& description,
                                        AudioObjectID& outTap) {
  const auto current = snapshot();
  if (!current->connected) {
    return kAudioHardwareNotRunningError;
  }
  Tap tap;
  for (const AudioObjectID object : description.processes()) {
    const auto* process = current->process(object);
    if (process == nullptr) {
      return kAudioHardwareBadObjectError;
    }
    tap.pids.insert(process->pid);
  }
  tap.uuid = description.UUID().uuidString();
  tap.sinkName = "quellix.tap." + tap.uuid;
  const auto* output = current->device(current->defaultOutput);
  tap.sampleRate = output != nullptr && output->sampleRate > 0
                       ? static_cast<std::uint32_t>(output->sampleRate)
                       : 48000;
  // A null sink renders as far ahead as its clients let it, up to two seconds: a player at its
  // default buffering moved onto it would have that much consumed at once, before the IO path
  // is there to ask for small blocks, and the path would then starve for as long. Without
  // rewinds it renders at most 50 ms ahead.
  const std::string arguments =
      "sink_name=" + tap.sinkName + " rate=" + std::to_string(tap.sampleRate) +
      " channels=2 format=float32le norewinds=1 sink_properties=\"device.description='" +
      sanitizedLabel(description.name()) + "' " + pulse::kTapOwnerProperty + "=" +
      std::to_string(::getpid()) + " " + pulse::kTapOwnerStartProperty + "=" +
      pulse::processStartTime(::getpid()) + " " + pulse::kTapUUIDProperty + "=" + tap.uuid + "\"";
  {
    MainloopLock lock(mainloop_);
    if (!ready_) {
      return kAudioHardwareNotRunningError;
    }
    tap.id = model_.allocateObjectID();
    outTap = tap.id;
    {
      std::lock_guard objectsLock(objectsMutex_);
      taps_.emplace(tap.id, tap);
    }
    // The sink's streams follow it as soon as the server reports it (keepStreamsOnTaps).
    OperationRunner::Operation load;
    load.description = "Creating the tap for " + description.name();
    load.start = [this, id = tap.id, arguments](Finish finish) {
      if (!ready_ || context_ == nullptr) {
        finish(false);
        return InFlight();
      }
      auto* reply = replyFor(std::move(finish), [this, id](std::uint32_t module) {
        std::lock_guard objectsLock(objectsMutex_);
        if (const auto found = taps_.find(id); found != taps_.end()) {
          found->second.module = module;
        }
      });
      return track(pa_context_load_module(context_, "module-null-sink", arguments.c_str(),
                                          &PulseBackend::indexReply, reply),
                   reply);
    };
    submit(tapLane(tap.id), std::move(load));
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

std::string PulseBackend::tapLane(AudioObjectID tap) {
  return "tap #" + std::to_string(tap);
}

PulseBackend::InFlight PulseBackend::takeDownTap(const Tap& tap, Finish finish) {
  if (!ready_ || context_ == nullptr) {
    finish(true);  // the server took the tap with the connection
    return nullptr;
  }
  const auto current = snapshot();
  const auto* sink = current->tapSinkWithUUID(tap.uuid);
  const std::uint32_t module = sink != nullptr ? sink->ownerModule : tap.module;
  if (module == pulse::kInvalidIndex) {
    // Its creation went unanswered; the sink goes once the server reports it after all.
    abandonedTapUUIDs_.insert(tap.uuid);
    finish(true);
    return nullptr;
  }
  // Back to where each stream played before, or the default output when that is gone. The
  // server carries requests out in order: when the unload answers, the moves are done.
  const auto* fallback = current->device(current->defaultOutput);
  for (const auto& placement : current->sinkInputs) {
    if (sink == nullptr || placement.sink != sink->index) {
      continue;
    }
    std::uint32_t target = fallback != nullptr ? fallback->sinkIndex : pulse::kInvalidIndex;
    if (const auto original = tap.originalSinks.find(placement.index);
        original != tap.originalSinks.end() &&
        std::any_of(current->devices.begin(), current->devices.end(),
                    [&](const auto& d) { return d.sinkIndex == original->second; })) {
      target = original->second;
    }
    if (target != pulse::kInvalidIndex) {
      if (pa_operation* move = pa_context_move_sink_input_by_index(context_, placement.index,
                                                                   target, nullptr, nullptr)) {
        pa_operation_unref(move);
      }
    }
  }
  auto* reply = replyFor(std::move(finish));
  return track(pa_context_unload_module(context_, module, &PulseBackend::successReply, reply),
               reply);
}

void PulseBackend::removeAbandonedTapSinks() {
  if (abandonedTapUUIDs_.empty()) {
    return;
  }
  const auto current = snapshot();
  for (const auto& sink : current->tapSinks) {
    if (abandonedTapUUIDs_.erase(sink.uuid) > 0 && sink.ownerModule != pulse::kInvalidIndex) {
      pa_operation_unref(pa_context_unload_module(context_, sink.ownerModule, nullptr, nullptr));
    }
  }
}

OSStatus PulseBackend::destroyProcessTap(AudioObjectID tapID) {
  {
    MainloopLock lock(mainloop_);
    Tap tap;
    {
      std::lock_guard objectsLock(objectsMutex_);
      const auto found = taps_.find(tapID);
      if (found == taps_.end()) {
        return lostWithServer_.erase(tapID) > 0 ? kAudioHardwareNoError
                                                : kAudioHardwareBadObjectError;
      }
      tap = std::move(found->second);
      taps_.erase(found);
    }
    // After whatever its lane still holds: a creation on its way is answered first.
    OperationRunner::Operation takeDown;
    takeDown.description = "Removing tap #" + std::to_string(tapID);
    takeDown.start = [this, tap](Finish finish) { return takeDownTap(tap, std::move(finish)); };
    submit(tapLane(tapID), std::move(takeDown));
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
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
