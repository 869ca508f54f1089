#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "audio/PropertyValue.h"
#include "audio/pulse/LeftoverTaps.h"
#include "audio/pulse/PulseRecords.h"
#include "support/BuildInfo.h"

namespace quellix {
namespace {

using pulse::AudioSnapshot;
using pulse::backendOf;
using pulse::copyClient;
using pulse::copySink;
using pulse::copySinkInput;
using pulse::copySourceOutput;
using pulse::MainloopLock;

// The initial view: sinks, sink inputs, source outputs, clients and the server's defaults.
constexpr int kInitialListReplies = 5;

}  // namespace

std::shared_ptr<PulseBackend> PulseBackend::create(Options options, std::shared_ptr<LogSink> logs) {
  std::shared_ptr<PulseBackend> backend(new PulseBackend(std::move(options), std::move(logs)));
  backend->startMainloop();
  if (!backend->waitForFirstSync()) {
    backend->logger_.error(
        "The sound server is not reachable; audio calls fail until it is, and Quellix keeps "
        "trying to connect");
  }
  return backend;
}

namespace {
std::atomic<std::uint64_t> nextBackendSerial{1};
}  // namespace

PulseBackend::PulseBackend(Options options, std::shared_ptr<LogSink> logs)
    : options_(std::move(options)),
      snapshot_(std::make_shared<const AudioSnapshot>()),
      serial_(nextBackendSerial.fetch_add(1)),
      logger_(std::move(logs), "AudioBackend") {
  runner_ = std::make_unique<OperationRunner>(
      options_.operationTimeout, [] { return OperationRunner::Clock::now(); }, logger_);
}

PulseBackend::~PulseBackend() {
  if (mainloop_ == nullptr) {
    return;
  }
  // With the thread stopped no callback can run any more; then the context can go.
  pa_threaded_mainloop_stop(mainloop_);
  // Abandons what is still in flight while the context that issued it is there.
  runner_.reset();
  dropContext();
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
  for (pa_time_event* event : {retryEvent_, deadlineEvent_}) {
    if (event != nullptr) {
      api->time_free(event);
    }
  }
  pa_threaded_mainloop_free(mainloop_);
}

void PulseBackend::startMainloop() {
  mainloop_ = pa_threaded_mainloop_new();
  pa_threaded_mainloop_set_name(mainloop_, "quellix-pulse");
  MainloopLock lock(mainloop_);
  pa_threaded_mainloop_start(mainloop_);
  connect();
}

bool PulseBackend::waitForFirstSync() {
  std::unique_lock lock(syncMutex_);
  return syncCondition_.wait_for(lock, options_.startupWait, [&] { return firstSyncDone_; });
}

bool PulseBackend::isConnected() const {
  return snapshot()->connected;
}

std::shared_ptr<const AudioSnapshot> PulseBackend::snapshot() const {
  std::lock_guard lock(snapshotMutex_);
  return snapshot_;
}

const AudioSnapshot& PulseBackend::currentSnapshot() const {
  struct Cache {
    std::uint64_t backend = 0;
    std::uint64_t version = 0;
    std::shared_ptr<const AudioSnapshot> snapshot;
  };
  thread_local Cache cache;
  const std::uint64_t version = snapshotVersion_.load(std::memory_order_acquire);
  if (cache.backend != serial_ || cache.version != version || !cache.snapshot) {
    std::lock_guard lock(snapshotMutex_);
    cache = {serial_, snapshotVersion_.load(std::memory_order_relaxed), snapshot_};
  }
  return *cache.snapshot;
}

void PulseBackend::connect() {
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quellix");
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, build::kBundleIdentifier);
  context_ =
      pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop_), "Quellix", properties);
  pa_proplist_free(properties);
  pa_context_set_state_callback(context_, &PulseBackend::contextStateCallback, this);
  const char* server = options_.server.empty() ? nullptr : options_.server.c_str();
  // NOFAIL waits for a server that announces itself; the retry timer covers one that doesn't.
  if (pa_context_connect(
          context_, server,
          static_cast<pa_context_flags_t>(PA_CONTEXT_NOFAIL | PA_CONTEXT_NOAUTOSPAWN),
          nullptr) < 0) {
    dropContext();
  }
  armRetry(options_.retryInterval);
}

void PulseBackend::dropContext() {
  if (context_ == nullptr) {
    return;
  }
  pa_context_set_state_callback(context_, nullptr, nullptr);
  pa_context_set_subscribe_callback(context_, nullptr, nullptr);
  pa_context_disconnect(context_);
  pa_context_unref(context_);
  context_ = nullptr;
}

void PulseBackend::armRetry(std::chrono::milliseconds delay) {
  timeval when{};
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(delay.count()) * PA_USEC_PER_MSEC);
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
  if (retryEvent_ == nullptr) {
    retryEvent_ = api->time_new(api, &when, &PulseBackend::retryCallback, this);
  } else {
    api->time_restart(retryEvent_, &when);
  }
}

void PulseBackend::retryCallback(pa_mainloop_api*, pa_time_event*, const struct timeval*,
                                 void* userdata) {
  PulseBackend* self = backendOf(userdata);
  if (self->ready_) {
    return;
  }
  self->dropContext();
  self->connect();
}

void PulseBackend::contextStateCallback(pa_context* context, void* userdata) {
  backendOf(userdata)->onContextState(context);
}

void PulseBackend::onContextState(pa_context* context) {
  if (context != context_) {
    return;
  }
  switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY: {
      ready_ = true;
      model_.setOwnClient(pa_context_get_index(context), static_cast<SInt32>(::getpid()));
      pa_context_set_subscribe_callback(context, &PulseBackend::subscriptionCallback, this);
      const auto mask = static_cast<pa_subscription_mask_t>(
          PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SINK_INPUT |
          PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT | PA_SUBSCRIPTION_MASK_CLIENT |
          PA_SUBSCRIPTION_MASK_SERVER);
      pa_operation_unref(pa_context_subscribe(context, mask, nullptr, nullptr));
      requestEverything();
      const char* server = pa_context_get_server(context);
      logger_.info(std::string(wasConnected_ ? "Reconnected" : "Connected") +
                   " to the sound server at " + (server != nullptr ? server : "?"));
      wasConnected_ = true;
      break;
    }
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
      if (ready_) {
        logger_.error(std::string("Lost the sound server (") +
                      pa_strerror(pa_context_errno(context)) + "); reconnecting");
      }
      ready_ = false;
      pendingListReplies_ = 0;
      runner_->failAll("the connection to the sound server is gone");
      armDeadline();
      abandonedTapUUIDs_.clear();
      moves_.clear();
      leftoversSwept_ = false;
      {
        // Taps and aggregate devices died with the server; their IO paths stop here.
        std::lock_guard lock(objectsMutex_);
        for (const auto& entry : taps_) {
          lostWithServer_.insert(entry.first);
        }
        for (const auto& entry : aggregates_) {
          lostWithServer_.insert(entry.first);
        }
        taps_.clear();
        aggregates_.clear();
      }
      model_.reset();
      publish();
      listeners_.fire(kAudioObjectSystemObject,
                      {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                       kAudioObjectPropertyElementMain});
      // Not from inside the context's own callback: the retry drops and replaces it.
      armRetry(std::chrono::milliseconds(100));
      break;
    default:
      break;
  }
}

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
