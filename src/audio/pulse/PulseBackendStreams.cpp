// The stream router: keeps the tapped processes' streams on their taps' sinks.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>

#include "audio/pulse/LeftoverTaps.h"

namespace quellix {

using pulse::backendOf;
using pulse::MainloopLock;

namespace {

struct MoveRequest {
  PulseBackend* backend;
  std::uint32_t sinkInput;
  bool toOutputDevice = false;  // else onto its tap
};

constexpr int kMaxMoveFailures = 5;
}  // namespace

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
const pulse::DeviceObject* routeTarget(const pulse::AudioSnapshot& snapshot,
                                       const std::string& deviceUID) {
  const auto* chosen = deviceUID.empty() ? nullptr : snapshot.deviceWithUID(deviceUID);
  return chosen != nullptr ? chosen : snapshot.device(snapshot.defaultOutput);
}

bool isOnTapSink(const pulse::AudioSnapshot& snapshot, const pulse::SinkInputPlacement& placement) {
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
  MainloopLock lock(mainloop_);
  if (!ready_) {
    return kAudioHardwareNotRunningError;
  }
  {
    std::lock_guard objectsLock(objectsMutex_);
    routes_[pid] = std::move(deviceUID);
  }
  // The moves follow from here, and again whenever the server reports the streams.
  keepStreamsRouted();
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
}  // namespace quellix
