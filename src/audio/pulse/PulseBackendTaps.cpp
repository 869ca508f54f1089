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
  bool toOutputDevice = false;  // else onto its tap
};

constexpr auto kTapPlacementWait = std::chrono::milliseconds(1000);
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

bool PulseBackend::waitForSnapshot(
    const std::function<bool(const pulse::AudioSnapshot&)>& condition,
    std::chrono::milliseconds timeout) {
  std::unique_lock lock(snapshotMutex_);
  return snapshotChanged_.wait_for(lock, timeout, [&] { return condition(*snapshot_); });
}

void PulseBackend::indexOperationCallback(pa_context*, std::uint32_t index, void* userdata) {
  auto* completion = static_cast<std::shared_ptr<Completion>*>(userdata);
  {
    std::lock_guard lock((*completion)->mutex);
    (*completion)->index = index;
  }
  (*completion)->finish(index != PA_INVALID_INDEX);
  delete completion;
}

void PulseBackend::moveCallback(pa_context* context, int success, void* userdata) {
  auto* request = static_cast<MoveRequest*>(userdata);
  if (context == request->backend->context_) {
    if (request->toOutputDevice) {
      request->backend->onRouteMoveDone(request->sinkInput, success != 0);
    } else {
      request->backend->onMoveDone(request->sinkInput, success != 0);
    }
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

void PulseBackend::onRouteMoveDone(std::uint32_t sinkInput, bool success) {
  auto found = routeMoves_.find(sinkInput);
  if (found == routeMoves_.end()) {
    return;
  }
  found->second.inFlight = false;
  if (!success && ++found->second.failures == kMaxMoveFailures) {
    logger_.error("Stream #" + std::to_string(sinkInput) +
                  " refuses to move to its chosen output device; it stays where it plays");
  }
  requestInfo(context_, pulse::PulseModel::Kind::sinkInput, sinkInput);
}

namespace {

// Where a routed process's stream belongs: its device while there, else the default output.
const pulse::DeviceObject* routeTarget(const AudioSnapshot& snapshot,
                                       const std::string& deviceUID) {
  const auto* chosen = deviceUID.empty() ? nullptr : snapshot.deviceWithUID(deviceUID);
  return chosen != nullptr ? chosen : snapshot.device(snapshot.defaultOutput);
}

bool isOnTapSink(const AudioSnapshot& snapshot, const pulse::SinkInputPlacement& placement) {
  return std::any_of(snapshot.tapSinks.begin(), snapshot.tapSinks.end(),
                     [&](const auto& tap) { return tap.index == placement.sink; });
}

}  // namespace

void PulseBackend::keepStreamsRouted() {
  const auto current = snapshot();
  std::lock_guard lock(objectsMutex_);
  std::erase_if(routes_, [&](const auto& route) {
    return std::none_of(current->processes.begin(), current->processes.end(),
                        [&](const auto& process) { return process.pid == route.first; });
  });
  for (const auto& placement : current->sinkInputs) {
    const auto route = routes_.find(placement.pid);
    if (placement.isOurIO || route == routes_.end()) {
      continue;
    }
    // A tap holds its streams; they take the route when it lets them go.
    const bool tapped = std::any_of(taps_.begin(), taps_.end(), [&](const auto& tap) {
      return tap.second.pids.count(placement.pid) > 0;
    });
    const auto* target = routeTarget(*current, route->second);
    if (tapped || isOnTapSink(*current, placement) || target == nullptr ||
        placement.sink == target->sinkIndex) {
      continue;
    }
    Move& move = routeMoves_[placement.index];
    if (move.inFlight || move.failures >= kMaxMoveFailures) {
      continue;
    }
    move.inFlight = true;
    pa_operation_unref(pa_context_move_sink_input_by_index(
        context_, placement.index, target->sinkIndex, &PulseBackend::moveCallback,
        new MoveRequest{this, placement.index, true}));
  }
}

OSStatus PulseBackend::routeProcess(SInt32 pid, std::string deviceUID) {
  {
    MainloopLock lock(mainloop_);
    if (!ready_) {
      return kAudioHardwareNotRunningError;
    }
    {
      std::lock_guard objectsLock(objectsMutex_);
      routes_[pid] = deviceUID;
    }
    keepStreamsRouted();
  }
  // The call returns with the streams where they belong, as far as the server lets it.
  waitForSnapshot(
      [&](const AudioSnapshot& s) {
        const auto* target = routeTarget(s, deviceUID);
        return target == nullptr ||
               std::none_of(s.sinkInputs.begin(), s.sinkInputs.end(), [&](const auto& p) {
                 return p.pid == pid && !p.isOurIO && !isOnTapSink(s, p) &&
                        p.sink != target->sinkIndex;
               });
      },
      kTapPlacementWait);
  return kAudioHardwareNoError;
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
  const OSStatus status = runIndexOperation(
      [&](pa_context* context, auto callback, void* userdata) {
        return pa_context_load_module(context, "module-null-sink", arguments.c_str(), callback,
                                      userdata);
      },
      tap.module);
  if (status != kAudioHardwareNoError) {
    return status;
  }
  if (!waitForSnapshot([&](const auto& s) { return s.tapSinkWithUUID(tap.uuid) != nullptr; },
                       options_.operationTimeout)) {
    runOperation([&](pa_context* context, auto callback, void* userdata) {
      return pa_context_unload_module(context, tap.module, callback, userdata);
    });
    return kAudioHardwareNotRunningError;
  }
  {
    MainloopLock lock(mainloop_);
    tap.id = model_.allocateObjectID();
    outTap = tap.id;
    {
      std::lock_guard objectsLock(objectsMutex_);
      taps_.emplace(tap.id, tap);
    }
    keepStreamsOnTaps();
  }
  // Audio flows through the tap once its streams are there; new ones follow as they come.
  waitForSnapshot(
      [&](const auto& s) {
        const auto* sink = s.tapSinkWithUUID(tap.uuid);
        return std::none_of(s.sinkInputs.begin(), s.sinkInputs.end(), [&](const auto& p) {
          return !p.isOurIO && tap.pids.count(p.pid) > 0 && p.sink != sink->index;
        });
      },
      kTapPlacementWait);
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::returnStreams(const Tap& tap) {
  // Back to where each stream played before, or the default output when that is gone.
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const auto current = snapshot();
    const auto* sink = current->tapSinkWithUUID(tap.uuid);
    if (sink == nullptr) {
      return kAudioHardwareNoError;
    }
    std::vector<std::pair<std::uint32_t, std::uint32_t>> moves;
    const auto* fallback = current->device(current->defaultOutput);
    for (const auto& placement : current->sinkInputs) {
      if (placement.sink != sink->index) {
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
        moves.emplace_back(placement.index, target);
      }
    }
    if (moves.empty()) {
      return kAudioHardwareNoError;
    }
    if (attempt > 0) {
      repeatedMoves_.fetch_add(moves.size(), std::memory_order_relaxed);
    }
    for (const auto& move : moves) {
      const std::uint32_t stream = move.first;
      const std::uint32_t destination = move.second;
      runOperation([&](pa_context* context, auto callback, void* userdata) {
        return pa_context_move_sink_input_by_index(context, stream, destination, callback,
                                                   userdata);
      });
    }
    waitForSnapshot(
        [&](const auto& s) {
          return std::none_of(s.sinkInputs.begin(), s.sinkInputs.end(),
                              [&](const auto& p) { return p.sink == sink->index; });
        },
        kTapPlacementWait);
  }
  return kAudioHardwareUnspecifiedError;
}

OSStatus PulseBackend::destroyProcessTap(AudioObjectID tapID) {
  Tap tap;
  {
    MainloopLock lock(mainloop_);
    std::lock_guard objectsLock(objectsMutex_);
    const auto found = taps_.find(tapID);
    if (found == taps_.end()) {
      return lostWithServer_.erase(tapID) > 0 ? kAudioHardwareNoError
                                              : kAudioHardwareBadObjectError;
    }
    tap = std::move(found->second);
    taps_.erase(found);
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  const OSStatus moved = returnStreams(tap);
  const OSStatus unloaded = runOperation([&](pa_context* context, auto callback, void* userdata) {
    return pa_context_unload_module(context, tap.module, callback, userdata);
  });
  return unloaded != kAudioHardwareNoError ? unloaded : moved;
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
  found->second.procs.emplace(outProc, IOProc{std::move(block), nullptr});
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::startDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  PulseIOPath::Config config;
  {
    std::lock_guard lock(objectsMutex_);
    const auto aggregate = aggregates_.find(device);
    if (aggregate == aggregates_.end()) {
      return kAudioHardwareBadDeviceError;
    }
    const auto ioProc = aggregate->second.procs.find(proc);
    const auto tap = taps_.find(aggregate->second.tap);
    if (ioProc == aggregate->second.procs.end() || tap == taps_.end()) {
      return kAudioHardwareIllegalOperationError;
    }
    if (ioProc->second.path) {
      return kAudioHardwareNoError;
    }
    config.server = options_.server;
    config.sourceName = tap->second.sinkName + ".monitor";
    config.sinkName = aggregate->second.mainSinkName;
    config.sampleRate = tap->second.sampleRate;
    config.block = ioProc->second.block;
    config.timeout = options_.operationTimeout;
  }
  OSStatus status = kAudioHardwareNoError;
  auto path = PulseIOPath::start(std::move(config), status);
  if (!path) {
    return status;
  }
  std::lock_guard lock(objectsMutex_);
  const auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  const auto ioProc = aggregate->second.procs.find(proc);
  if (ioProc == aggregate->second.procs.end()) {
    return kAudioHardwareIllegalOperationError;
  }
  ioProc->second.path = std::move(path);
  return kAudioHardwareNoError;
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
