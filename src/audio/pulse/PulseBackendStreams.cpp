// The stream router: keeps the tapped processes' streams on their taps' sinks.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>

#include "audio/pulse/LeftoverTaps.h"

namespace quellix {

using pulse::backendOf;

namespace {

struct MoveRequest {
  PulseBackend* backend;
  std::uint32_t sinkInput;
};

constexpr int kMaxMoveFailures = 5;
}  // namespace

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
}  // namespace quellix
