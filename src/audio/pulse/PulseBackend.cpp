// The connection: the main loop, the context, reconnecting, and the snapshot readers share.
#include "audio/pulse/PulseBackend.h"
#include "audio/pulse/PulseBackendParts.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <thread>

#include "support/BuildInfo.h"

namespace quellix {
namespace {

using pulse::AudioSnapshot;
using pulse::backendOf;
using pulse::MainloopLock;

constexpr auto kDrainPoll = std::chrono::milliseconds(10);

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
  // A quit takes its taps down itself: what is still queued gets its time-out to be carried
  // out, so that the guard finds nothing to clean up.
  const auto deadline = std::chrono::steady_clock::now() + options_.operationTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    {
      MainloopLock lock(mainloop_);
      if (!ready_ || runner_->pendingCount() == 0) {
        break;
      }
    }
    std::this_thread::sleep_for(kDrainPoll);
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
      routeMoves_.clear();
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
        routes_.clear();
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

}  // namespace quellix
