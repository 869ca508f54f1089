// Taps: created and removed in their own lane of the operation runner.
#include "audio/pulse/PulseBackend.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include "audio/pulse/LeftoverTaps.h"
#include "audio/pulse/PulseBackendParts.h"

namespace quellix {

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

}  // namespace

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
  // rewinds it renders at most 50 ms ahead. Below every real output in the session manager's
  // choice of a default: when the default output goes, the new one must never be a tap.
  const std::string arguments =
      "sink_name=" + tap.sinkName + " rate=" + std::to_string(tap.sampleRate) +
      " channels=2 format=float32le norewinds=1 sink_properties=\"priority.session=-1 "
      "device.description='" +
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
}  // namespace quellix
