// The model feed: the server's lists at connection, its events, and the info replies they
// ask for; every change is published as a snapshot and as listener notifications.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>

#include "audio/pulse/PulseRecords.h"

namespace quellix {
namespace {

using pulse::AudioSnapshot;
using pulse::backendOf;
using pulse::copyClient;
using pulse::copySink;
using pulse::copySinkInput;
using pulse::copySourceOutput;

// The initial view: sinks, sink inputs, source outputs, clients and the server's defaults.
constexpr int kInitialListReplies = 5;

}  // namespace

void PulseBackend::requestEverything() {
  pendingListReplies_ = kInitialListReplies;
  pa_operation_unref(pa_context_get_sink_info_list(
      context_, &PulseBackend::listCallback<pa_sink_info, copySink, &pulse::PulseModel::applySink>,
      this));
  pa_operation_unref(pa_context_get_sink_input_info_list(
      context_,
      &PulseBackend::listCallback<pa_sink_input_info, copySinkInput,
                                  &pulse::PulseModel::applySinkInput>,
      this));
  pa_operation_unref(pa_context_get_source_output_info_list(
      context_,
      &PulseBackend::listCallback<pa_source_output_info, copySourceOutput,
                                  &pulse::PulseModel::applySourceOutput>,
      this));
  pa_operation_unref(pa_context_get_client_info_list(
      context_,
      &PulseBackend::listCallback<pa_client_info, copyClient, &pulse::PulseModel::applyClient>,
      this));
  pa_operation_unref(pa_context_get_server_info(context_, &PulseBackend::serverInfoCallback, this));
}

void PulseBackend::listReplyFinished() {
  if (pendingListReplies_ <= 0 || --pendingListReplies_ > 0) {
    return;
  }
  publish();
  if (!leftoversSwept_) {
    leftoversSwept_ = true;
    removeLeftovers();
  }
  {
    std::lock_guard lock(syncMutex_);
    firstSyncDone_ = true;
  }
  syncCondition_.notify_all();
}

void PulseBackend::publish() {
  if (pendingListReplies_ > 0) {
    return;  // the first view is published whole
  }
  auto next = std::make_shared<const AudioSnapshot>(model_.snapshot(ready_));
  std::shared_ptr<const AudioSnapshot> previous;
  {
    std::lock_guard lock(snapshotMutex_);
    previous = std::exchange(snapshot_, next);
    snapshotVersion_.fetch_add(1, std::memory_order_release);
  }
  for (const auto& change : pulse::changesBetween(*previous, *next)) {
    listeners_.fire(change.object, change.address);
  }
  if (ready_) {
    keepStreamsOnTaps();
    keepStreamsRouted();
    removeAbandonedTapSinks();
  }
}

void PulseBackend::subscriptionCallback(pa_context* context, pa_subscription_event_type_t eventType,
                                        std::uint32_t index, void* userdata) {
  backendOf(userdata)->onSubscription(context, static_cast<unsigned>(eventType), index);
}

void PulseBackend::onSubscription(pa_context* context, unsigned eventType, std::uint32_t index) {
  if (context != context_) {
    return;
  }
  const unsigned facility = eventType & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
  const unsigned type = eventType & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
  using Kind = pulse::PulseModel::Kind;
  std::optional<Kind> kind;
  switch (facility) {
    case PA_SUBSCRIPTION_EVENT_SINK:
      kind = Kind::sink;
      break;
    case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
      kind = Kind::sinkInput;
      break;
    case PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT:
      kind = Kind::sourceOutput;
      break;
    case PA_SUBSCRIPTION_EVENT_CLIENT:
      kind = Kind::client;
      break;
    case PA_SUBSCRIPTION_EVENT_SERVER:
      pa_operation_unref(
          pa_context_get_server_info(context, &PulseBackend::serverInfoCallback, this));
      return;
    default:
      return;
  }
  if (type == PA_SUBSCRIPTION_EVENT_REMOVE) {
    model_.remove(*kind, index);
    if (*kind == Kind::sinkInput) {
      moves_.erase(index);
      routeMoves_.erase(index);
    }
    publish();
    return;
  }
  if (type == PA_SUBSCRIPTION_EVENT_NEW) {
    model_.announce(*kind, index);
  }
  requestInfo(context, *kind, index);
}

void PulseBackend::requestInfo(pa_context* context, pulse::PulseModel::Kind kind,
                               std::uint32_t index) {
  using Kind = pulse::PulseModel::Kind;
  pa_operation* operation = nullptr;
  switch (kind) {
    case Kind::sink:
      operation = pa_context_get_sink_info_by_index(
          context, index,
          &PulseBackend::infoCallback<pa_sink_info, copySink, &pulse::PulseModel::applySink>, this);
      break;
    case Kind::sinkInput:
      operation = pa_context_get_sink_input_info(
          context, index,
          &PulseBackend::infoCallback<pa_sink_input_info, copySinkInput,
                                      &pulse::PulseModel::applySinkInput>,
          this);
      break;
    case Kind::sourceOutput:
      operation = pa_context_get_source_output_info(
          context, index,
          &PulseBackend::infoCallback<pa_source_output_info, copySourceOutput,
                                      &pulse::PulseModel::applySourceOutput>,
          this);
      break;
    case Kind::client:
      operation = pa_context_get_client_info(
          context, index,
          &PulseBackend::infoCallback<pa_client_info, copyClient, &pulse::PulseModel::applyClient>,
          this);
      break;
  }
  if (operation != nullptr) {
    pa_operation_unref(operation);
  }
}

// Info replies: copy the record while the pointer is valid, apply it, publish. A reply to a
// list request applies its records and publishes once, at the end of the list.
template <typename Info, auto Copy, auto Apply>
void PulseBackend::infoCallback(pa_context* context, const Info* info, int eol, void* userdata) {
  PulseBackend* self = backendOf(userdata);
  if (context == self->context_ && eol == 0 && info != nullptr) {
    (self->model_.*Apply)(Copy(*info));
    self->publish();
  }
}

template <typename Info, auto Copy, auto Apply>
void PulseBackend::listCallback(pa_context* context, const Info* info, int eol, void* userdata) {
  PulseBackend* self = backendOf(userdata);
  if (context != self->context_) {
    return;
  }
  if (eol != 0) {
    self->listReplyFinished();
  } else if (info != nullptr) {
    (self->model_.*Apply)(Copy(*info));
  }
}

void PulseBackend::serverInfoCallback(pa_context* context, const pa_server_info* info,
                                      void* userdata) {
  PulseBackend* self = backendOf(userdata);
  if (context != self->context_) {
    return;
  }
  if (info != nullptr) {
    self->model_.setDefaultSinkName(info->default_sink_name != nullptr ? info->default_sink_name
                                                                       : "");
  }
  if (self->pendingListReplies_ > 0) {
    self->listReplyFinished();
  } else {
    self->publish();
  }
}

}  // namespace quellix
