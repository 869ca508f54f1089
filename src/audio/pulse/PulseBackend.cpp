#include "audio/pulse/PulseBackend.h"

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

constexpr AudioObjectPropertyAddress kVolumeAddress{
    kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioDevicePropertyScopeOutput,
    kAudioObjectPropertyElementMain};
constexpr AudioObjectPropertyAddress kMuteAddress{
    kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput, kAudioObjectPropertyElementMain};
// The initial view: sinks, sink inputs, source outputs, clients and the server's defaults.
constexpr int kInitialListReplies = 5;

class MainloopLock {
 public:
  explicit MainloopLock(pa_threaded_mainloop* mainloop) : mainloop_(mainloop) {
    pa_threaded_mainloop_lock(mainloop_);
  }
  ~MainloopLock() { pa_threaded_mainloop_unlock(mainloop_); }
  MainloopLock(const MainloopLock&) = delete;
  MainloopLock& operator=(const MainloopLock&) = delete;

 private:
  pa_threaded_mainloop* mainloop_;
};

using pulse::copyClient;
using pulse::copySink;
using pulse::copySinkInput;
using pulse::copySourceOutput;

PulseBackend* backendOf(void* userdata) {
  return static_cast<PulseBackend*>(userdata);
}

// The channel volumes that keep the sink's balance and average to `volume`.
pa_cvolume scaledVolume(const std::vector<std::uint32_t>& channels, Float32 volume) {
  pa_cvolume result;
  pa_cvolume_init(&result);
  const auto count =
      static_cast<std::uint8_t>(std::clamp<std::size_t>(channels.size(), 1, PA_CHANNELS_MAX));
  result.channels = count;
  const double target = std::clamp<double>(volume, 0.0, 1.0) * PA_VOLUME_NORM;
  double average = 0;
  for (std::size_t i = 0; i < channels.size() && i < count; ++i) {
    average += channels[i];
  }
  average /= count;
  for (std::uint8_t i = 0; i < count; ++i) {
    const double value =
        average > 0 && i < channels.size() ? channels[i] * target / average : target;
    result.values[i] =
        static_cast<pa_volume_t>(std::clamp<double>(std::lround(value), 0, PA_VOLUME_MAX));
  }
  return result;
}

}  // namespace

struct PulseBackend::Completion {
  std::mutex mutex;
  std::condition_variable condition;
  bool done = false;
  bool success = false;
  std::uint32_t index = PA_INVALID_INDEX;

  void finish(bool succeeded) {
    {
      std::lock_guard lock(mutex);
      if (done) {
        return;
      }
      done = true;
      success = succeeded;
    }
    condition.notify_all();
  }
};

std::shared_ptr<PulseBackend> PulseBackend::create(Options options) {
  std::shared_ptr<PulseBackend> backend(new PulseBackend(std::move(options)));
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

PulseBackend::PulseBackend(Options options)
    : options_(std::move(options)),
      snapshot_(std::make_shared<const AudioSnapshot>()),
      serial_(nextBackendSerial.fetch_add(1)) {}

PulseBackend::~PulseBackend() {
  if (mainloop_ == nullptr) {
    return;
  }
  // With the thread stopped no callback can run any more; then the context can go.
  pa_threaded_mainloop_stop(mainloop_);
  dropContext();
  if (retryEvent_ != nullptr) {
    pa_threaded_mainloop_get_api(mainloop_)->time_free(retryEvent_);
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
      failPendingOperations();
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
  snapshotChanged_.notify_all();
  for (const auto& change : pulse::changesBetween(*previous, *next)) {
    listeners_.fire(change.object, change.address);
  }
  if (ready_) {
    keepStreamsOnTaps();
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

void PulseBackend::operationCallback(pa_context*, int success, void* userdata) {
  auto* completion = static_cast<std::shared_ptr<Completion>*>(userdata);
  (*completion)->finish(success != 0);
  delete completion;
}

void PulseBackend::failPendingOperations() {
  for (const auto& weak : pendingOperations_) {
    if (auto completion = weak.lock()) {
      completion->finish(false);
    }
  }
  pendingOperations_.clear();
}

OSStatus PulseBackend::runOperation(const StartOperation& start) {
  std::uint32_t unused = PA_INVALID_INDEX;
  return runAnyOperation(
      [&](pa_context* context, void* userdata) {
        return start(context, &PulseBackend::operationCallback, userdata);
      },
      unused);
}

OSStatus PulseBackend::runIndexOperation(const StartIndexOperation& start, std::uint32_t& index) {
  return runAnyOperation(
      [&](pa_context* context, void* userdata) {
        return start(context, &PulseBackend::indexOperationCallback, userdata);
      },
      index);
}

OSStatus PulseBackend::runAnyOperation(
    const std::function<pa_operation*(pa_context*, void*)>& start, std::uint32_t& index) {
  auto completion = std::make_shared<Completion>();
  auto* userdata = new std::shared_ptr<Completion>(completion);
  pa_operation* operation = nullptr;
  {
    MainloopLock lock(mainloop_);
    if (!ready_ || context_ == nullptr) {
      delete userdata;
      return kAudioHardwareNotRunningError;
    }
    operation = start(context_, userdata);
    if (operation == nullptr) {
      delete userdata;
      return kAudioHardwareUnspecifiedError;
    }
    std::erase_if(pendingOperations_, [](const auto& weak) { return weak.expired(); });
    pendingOperations_.push_back(completion);
  }
  bool finished = false;
  bool succeeded = false;
  {
    std::unique_lock lock(completion->mutex);
    finished = completion->condition.wait_for(lock, options_.operationTimeout,
                                              [&] { return completion->done; });
    succeeded = completion->success;
    index = completion->index;
  }
  {
    MainloopLock lock(mainloop_);
    // Under the lock the callback has either run (and freed its userdata) or never will.
    if (pa_operation_get_state(operation) != PA_OPERATION_DONE) {
      pa_operation_cancel(operation);
      delete userdata;
    }
    pa_operation_unref(operation);
  }
  if (!finished) {
    return kAudioHardwareNotRunningError;
  }
  return succeeded ? kAudioHardwareNoError : kAudioHardwareUnspecifiedError;
}

std::optional<PropertyValue> PulseBackend::propertyValue(AudioObjectID object,
                                                         const AudioObjectPropertyAddress& address,
                                                         OSStatus& status) const {
  const AudioSnapshot* current = &currentSnapshot();
  const auto selector = address.mSelector;
  const bool global = address.mScope == kAudioObjectPropertyScopeGlobal;
  const bool output = address.mScope == kAudioDevicePropertyScopeOutput;
  status = kAudioHardwareUnknownPropertyError;

  if (object == kAudioObjectSystemObject) {
    if (!current->connected) {
      status = kAudioHardwareNotRunningError;
      return std::nullopt;
    }
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioHardwarePropertyProcessObjectList) {
      std::vector<AudioObjectID> ids;
      for (const auto& process : current->processes) {
        ids.push_back(process.id);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDevices) {
      std::vector<AudioObjectID> ids;
      for (const auto& device : current->devices) {
        ids.push_back(device.id);
      }
      std::lock_guard lock(objectsMutex_);
      for (const auto& entry : aggregates_) {
        ids.push_back(entry.first);
      }
      std::sort(ids.begin(), ids.end());
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyTapList) {
      std::vector<AudioObjectID> ids;
      std::lock_guard lock(objectsMutex_);
      for (const auto& entry : taps_) {
        ids.push_back(entry.first);
      }
      return PropertyValue::list(ids);
    }
    if (selector == kAudioHardwarePropertyDefaultOutputDevice) {
      return PropertyValue::of(current->defaultOutput);
    }
    return std::nullopt;
  }

  if (const auto* process = current->process(object)) {
    if (!global) {
      return std::nullopt;
    }
    if (selector == kAudioProcessPropertyPID)
      return PropertyValue::of(process->pid);
    if (selector == kAudioProcessPropertyBundleID)
      return PropertyValue::text(process->bundleID);
    if (selector == kAudioProcessPropertyApplicationName)
      return PropertyValue::text(process->applicationName);
    if (selector == kAudioProcessPropertyIsRunning) {
      return PropertyValue::of(static_cast<UInt32>(process->running ? 1 : 0));
    }
    if (selector == kAudioProcessPropertyIsRunningOutput) {
      return PropertyValue::of(static_cast<UInt32>(process->runningOutput ? 1 : 0));
    }
    return std::nullopt;
  }

  if (const auto* device = current->device(object)) {
    if (global && selector == kAudioDevicePropertyDeviceUID) {
      return PropertyValue::text(device->uid);
    }
    if (global && selector == kAudioDevicePropertyNominalSampleRate) {
      return PropertyValue::of(device->sampleRate);
    }
    if (output && selector == kAudioHardwareServiceDeviceProperty_VirtualMainVolume) {
      return PropertyValue::of(device->volume);
    }
    if (output && selector == kAudioDevicePropertyMute) {
      return PropertyValue::of(static_cast<UInt32>(device->mute ? 1 : 0));
    }
    return std::nullopt;
  }

  {
    std::lock_guard lock(objectsMutex_);
    if (const auto tap = taps_.find(object); tap != taps_.end()) {
      if (global && selector == kAudioTapPropertyFormat) {
        const Float64 rate = tap->second.sampleRate;
        return PropertyValue::of(AudioStreamBasicDescription{
            rate, kAudioFormatLinearPCM, kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, 8, 1,
            8, 2, 32, 0});
      }
      return std::nullopt;
    }
    if (const auto aggregate = aggregates_.find(object); aggregate != aggregates_.end()) {
      if (global && selector == kAudioDevicePropertyDeviceUID) {
        return PropertyValue::text(aggregate->second.uid);
      }
      if (global && selector == kAudioDevicePropertyNominalSampleRate) {
        const auto tap = taps_.find(aggregate->second.tap);
        return PropertyValue::of(
            static_cast<Float64>(tap != taps_.end() ? tap->second.sampleRate : 0));
      }
      return std::nullopt;
    }
  }
  status = current->connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
  return std::nullopt;
}

OSStatus PulseBackend::getPropertyDataSize(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address, UInt32,
                                           const void*, UInt32& outSize) {
  OSStatus status = kAudioHardwareNoError;
  const auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  outSize = value->size();
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::getPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, UInt32,
                                       const void*, UInt32& ioSize, void* outData) {
  OSStatus status = kAudioHardwareNoError;
  auto value = propertyValue(object, address, status);
  if (!value) {
    return status;
  }
  return value->deliver(ioSize, outData);
}

bool PulseBackend::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
  OSStatus status = kAudioHardwareNoError;
  return propertyValue(object, address, status).has_value();
}

OSStatus PulseBackend::setPropertyData(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, UInt32,
                                       const void*, UInt32 size, const void* data) {
  const auto current = snapshot();
  const auto* device = current->device(object);
  if (device == nullptr) {
    if (!current->connected) {
      return kAudioHardwareNotRunningError;
    }
    return current->process(object) != nullptr || object == kAudioObjectSystemObject
               ? kAudioHardwareUnknownPropertyError
               : kAudioHardwareBadObjectError;
  }
  const std::uint32_t sinkIndex = device->sinkIndex;
  if (address == kVolumeAddress) {
    if (size != sizeof(Float32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    Float32 volume = 0;
    std::memcpy(&volume, data, sizeof volume);
    const pa_cvolume channels = scaledVolume(device->channelVolumes, volume);
    return runOperation([&](pa_context* context, auto callback, void* userdata) {
      return pa_context_set_sink_volume_by_index(context, sinkIndex, &channels, callback, userdata);
    });
  }
  if (address == kMuteAddress) {
    if (size != sizeof(UInt32)) {
      return kAudioHardwareBadPropertySizeError;
    }
    UInt32 mute = 0;
    std::memcpy(&mute, data, sizeof mute);
    return runOperation([&](pa_context* context, auto callback, void* userdata) {
      return pa_context_set_sink_mute_by_index(context, sinkIndex, mute != 0 ? 1 : 0, callback,
                                               userdata);
    });
  }
  return kAudioHardwareUnknownPropertyError;
}

OSStatus PulseBackend::addPropertyListener(AudioObjectID object,
                                           const AudioObjectPropertyAddress& address,
                                           MainQueue* queue,
                                           AudioObjectPropertyListenerBlock listener) {
  // The system object takes listeners even while the server is away: they fire once it is back.
  if (object != kAudioObjectSystemObject) {
    const auto current = snapshot();
    if (current->process(object) == nullptr && current->device(object) == nullptr) {
      return current->connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
    }
  }
  listeners_.add(object, address, queue, std::move(listener));
  return kAudioHardwareNoError;
}

OSStatus PulseBackend::removePropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              MainQueue* queue,
                                              const AudioObjectPropertyListenerBlock& listener) {
  return listeners_.remove(object, address, queue, listener) ? kAudioHardwareNoError
                                                             : kAudioHardwareIllegalOperationError;
}

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
