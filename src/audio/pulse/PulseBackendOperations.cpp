// Requests to the server that nobody waits for: the runner's lanes, their deadline timer, and
// the writes that change the model before the server has answered.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>

namespace quellix {

using pulse::backendOf;

void PulseBackend::submit(const std::string& lane, OperationRunner::Operation operation) {
  runner_->submit(lane, std::move(operation));
  armDeadline();
}

void PulseBackend::armDeadline() {
  if (mainloop_ == nullptr) {
    return;
  }
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
  const auto deadline = runner_ ? runner_->nextDeadline() : std::nullopt;
  if (!deadline) {
    if (deadlineEvent_ != nullptr) {
      api->time_restart(deadlineEvent_, nullptr);
    }
    return;
  }
  const auto delay = std::chrono::ceil<std::chrono::microseconds>(std::max(
      *deadline - OperationRunner::Clock::now(), OperationRunner::Clock::duration::zero()));
  timeval when{};
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(delay.count()));
  if (deadlineEvent_ == nullptr) {
    deadlineEvent_ = api->time_new(api, &when, &PulseBackend::deadlineCallback, this);
  } else {
    api->time_restart(deadlineEvent_, &when);
  }
}

void PulseBackend::deadlineCallback(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                                    void* userdata) {
  PulseBackend* self = backendOf(userdata);
  self->runner_->expire();
  self->armDeadline();
}

std::shared_ptr<PulseBackend::PendingReply>* PulseBackend::replyFor(
    Finish finish, std::function<void(std::uint32_t)> onIndex) {
  auto reply = std::make_shared<PendingReply>();
  reply->backend = this;
  reply->finish = std::move(finish);
  reply->onIndex = std::move(onIndex);
  return new std::shared_ptr<PendingReply>(std::move(reply));
}

PulseBackend::InFlight PulseBackend::track(pa_operation* operation,
                                           std::shared_ptr<PendingReply>* reply) {
  if (operation == nullptr) {
    const Finish finish = std::move((*reply)->finish);
    delete reply;
    finish(false);
    return nullptr;
  }
  // Runs with the main loop's lock held, as the runner does: either the reply has come and
  // freed its userdata, or it never will once the request is cancelled here.
  return InFlight(operation, [shared = *reply, reply](pa_operation* abandoned) {
    if (!shared->answered) {
      if (pa_operation_get_state(abandoned) == PA_OPERATION_RUNNING) {
        pa_operation_cancel(abandoned);
      }
      delete reply;
    }
    pa_operation_unref(abandoned);
  });
}

void PulseBackend::successReply(pa_context*, int success, void* userdata) {
  auto* reply = static_cast<std::shared_ptr<PendingReply>*>(userdata);
  const auto shared = *reply;
  shared->answered = true;
  delete reply;
  shared->finish(success != 0);
  shared->backend->armDeadline();
}

void PulseBackend::indexReply(pa_context*, std::uint32_t index, void* userdata) {
  auto* reply = static_cast<std::shared_ptr<PendingReply>*>(userdata);
  const auto shared = *reply;
  shared->answered = true;
  delete reply;
  if (index != PA_INVALID_INDEX && shared->onIndex) {
    shared->onIndex(index);
  }
  shared->finish(index != PA_INVALID_INDEX);
  shared->backend->armDeadline();
}

void PulseBackend::writeSink(
    std::uint32_t sinkIndex, const std::string& what,
    std::function<void(pulse::SinkInfo&)> optimistic,
    std::function<pa_operation*(pa_context*, std::shared_ptr<PendingReply>*)> issue) {
  const auto found = model_.sinks().find(sinkIndex);
  if (found == model_.sinks().end()) {
    return;
  }
  pulse::SinkInfo updated = found->second;
  optimistic(updated);
  const std::string description = what + " of output " + updated.name;
  model_.applySink(std::move(updated));
  publish();
  OperationRunner::Operation operation;
  operation.description = description;
  operation.replaceable = true;
  operation.start = [this, issue = std::move(issue)](Finish finish) {
    if (!ready_ || context_ == nullptr) {
      finish(false);
      return InFlight();
    }
    auto* reply = replyFor(std::move(finish));
    return track(issue(context_, reply), reply);
  };
  operation.onFailure = [this, sinkIndex] {
    if (ready_ && context_ != nullptr) {
      requestInfo(context_, pulse::PulseModel::Kind::sink, sinkIndex);
    }
  };
  submit(what + " #" + std::to_string(sinkIndex), std::move(operation));
}

}  // namespace quellix
