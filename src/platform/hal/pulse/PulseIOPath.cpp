#include "platform/hal/pulse/PulseIOPath.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/hal/pulse/PulseModel.h"
#include "support/BuildInfo.h"

namespace quellix {
namespace {

constexpr std::uint8_t kChannels = 2;
constexpr std::size_t kBytesPerFrame = kChannels * sizeof(float);
// The monitor is read in small fragments: a null sink renders in large blocks unless a client
// asks it for low latency.
constexpr std::chrono::milliseconds kRecordFragment{10};
// Room in the playback buffer, in target latencies: a tap sink still delivers blocks as large
// as its other clients ask for. Beyond it input is dropped (the first blocks of a new tap);
// the rate control holds the latency at kHeldLatency target latencies.
constexpr std::uint32_t kPlaybackRoom = 4;
constexpr double kHeldLatency = 1.0;
constexpr auto kRateCheckInterval = std::chrono::milliseconds(500);
// The largest correction of the record rate, and how hard the latency error pulls.
constexpr double kMaxRateCorrection = 0.02;
constexpr double kRateGain = 0.05;
constexpr std::size_t kSilenceFrames = 48000;

std::uint32_t bytesFor(std::chrono::milliseconds duration, std::uint32_t rate) {
  return static_cast<std::uint32_t>(rate * duration.count() / 1000) *
         static_cast<std::uint32_t>(kBytesPerFrame);
}

class Lock {
 public:
  explicit Lock(pa_threaded_mainloop* mainloop) : mainloop_(mainloop) {
    pa_threaded_mainloop_lock(mainloop_);
  }
  ~Lock() { pa_threaded_mainloop_unlock(mainloop_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pa_threaded_mainloop* mainloop_;
};

PulseIOPath* pathOf(void* userdata) {
  return static_cast<PulseIOPath*>(userdata);
}

}  // namespace

std::unique_ptr<PulseIOPath> PulseIOPath::start(Config config, OSStatus& status) {
  std::unique_ptr<PulseIOPath> path(new PulseIOPath(std::move(config)));
  if (!path->connect()) {
    status = kAudioHardwareNotRunningError;
    return nullptr;
  }
  status = kAudioHardwareNoError;
  return path;
}

PulseIOPath::PulseIOPath(Config config)
    : config_(std::move(config)), silence_(kSilenceFrames * kChannels, 0.0f) {}

PulseIOPath::~PulseIOPath() {
  if (mainloop_ == nullptr) {
    return;
  }
  pa_threaded_mainloop_stop(mainloop_);
  if (rateTimer_ != nullptr) {
    pa_threaded_mainloop_get_api(mainloop_)->time_free(rateTimer_);
  }
  for (pa_stream* stream : {record_, playback_}) {
    if (stream != nullptr) {
      pa_stream_set_state_callback(stream, nullptr, nullptr);
      pa_stream_set_read_callback(stream, nullptr, nullptr);
      pa_stream_set_underflow_callback(stream, nullptr, nullptr);
      pa_stream_disconnect(stream);
      pa_stream_unref(stream);
    }
  }
  if (context_ != nullptr) {
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
  }
  pa_threaded_mainloop_free(mainloop_);
}

bool PulseIOPath::connect() {
  mainloop_ = pa_threaded_mainloop_new();
  pa_threaded_mainloop_set_name(mainloop_, "quellix-io");
  Lock lock(mainloop_);
  if (pa_threaded_mainloop_start(mainloop_) < 0) {
    return false;
  }
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quellix");
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, build::kBundleIdentifier);
  context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop_), "Quellix IO",
                                          properties);
  pa_proplist_free(properties);
  pa_context_set_state_callback(context_, &PulseIOPath::contextStateCallback, this);
  const char* server = config_.server.empty() ? nullptr : config_.server.c_str();
  if (pa_context_connect(context_, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + config_.timeout;
  auto waitFor = [&](auto ready, auto good) {
    while (!ready()) {
      if (!good() || std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      pa_threaded_mainloop_wait(mainloop_);
    }
    return true;
  };
  if (!waitFor([&] { return pa_context_get_state(context_) == PA_CONTEXT_READY; },
               [&] { return PA_CONTEXT_IS_GOOD(pa_context_get_state(context_)); })) {
    return false;
  }

  const pa_sample_spec spec{PA_SAMPLE_FLOAT32LE, config_.sampleRate, kChannels};
  auto makeStream = [&](const char* name) {
    pa_proplist* streamProperties = pa_proplist_new();
    pa_proplist_sets(streamProperties, pulse::kIOStreamProperty, "1");
    pa_proplist_sets(streamProperties, PA_PROP_MEDIA_ROLE, "production");
    pa_stream* stream =
        pa_stream_new_with_proplist(context_, name, &spec, nullptr, streamProperties);
    pa_proplist_free(streamProperties);
    if (stream != nullptr) {
      pa_stream_set_state_callback(stream, &PulseIOPath::streamStateCallback, this);
    }
    return stream;
  };
  record_ = makeStream("Quellix tap");
  playback_ = makeStream("Quellix playback");
  if (record_ == nullptr || playback_ == nullptr) {
    return false;
  }
  pa_stream_set_read_callback(record_, &PulseIOPath::readCallback, this);
  pa_stream_set_underflow_callback(playback_, &PulseIOPath::underflowCallback, this);

  const std::uint32_t unset = static_cast<std::uint32_t>(-1);
  const pa_buffer_attr recordAttributes{unset, unset, unset, unset,
                                        bytesFor(kRecordFragment, config_.sampleRate)};
  const pa_buffer_attr playbackAttributes{
      unset, bytesFor(config_.targetLatency, config_.sampleRate), unset, unset, unset};
  const auto common = PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE;
  // Only the playback's latency is watched; timing updates of the record stream would be
  // wake-ups for nothing.
  const auto timed = common | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING;
  if (pa_stream_connect_playback(playback_, config_.sinkName.c_str(), &playbackAttributes,
                                 static_cast<pa_stream_flags_t>(timed), nullptr, nullptr) < 0 ||
      pa_stream_connect_record(record_, config_.sourceName.c_str(), &recordAttributes,
                               static_cast<pa_stream_flags_t>(common | PA_STREAM_VARIABLE_RATE)) <
          0) {
    return false;
  }
  const bool ready = waitFor(
      [&] {
        return pa_stream_get_state(record_) == PA_STREAM_READY &&
               pa_stream_get_state(playback_) == PA_STREAM_READY;
      },
      [&] {
        return PA_STREAM_IS_GOOD(pa_stream_get_state(record_)) &&
               PA_STREAM_IS_GOOD(pa_stream_get_state(playback_));
      });
  if (!ready) {
    return false;
  }
  timeval when{};
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(kRateCheckInterval.count()) * PA_USEC_PER_MSEC);
  pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
  rateTimer_ = api->time_new(api, &when, &PulseIOPath::rateTimerCallback, this);
  return true;
}

void PulseIOPath::contextStateCallback(pa_context*, void* userdata) {
  pa_threaded_mainloop_signal(pathOf(userdata)->mainloop_, 0);
}

void PulseIOPath::streamStateCallback(pa_stream*, void* userdata) {
  pa_threaded_mainloop_signal(pathOf(userdata)->mainloop_, 0);
}

void PulseIOPath::readCallback(pa_stream*, std::size_t, void* userdata) {
  pathOf(userdata)->onReadable();
}

void PulseIOPath::underflowCallback(pa_stream*, void* userdata) {
  pathOf(userdata)->underruns_.fetch_add(1, std::memory_order_relaxed);
}

void PulseIOPath::onReadable() {
  for (;;) {
    const void* data = nullptr;
    std::size_t bytes = 0;
    if (pa_stream_peek(record_, &data, &bytes) < 0 || bytes == 0) {
      return;
    }
    // A hole in the record stream is silence. Sound that would queue beyond the room only
    // adds latency: it is dropped.
    pa_usec_t latency = 0;
    int negative = 0;
    const bool known = pa_stream_get_latency(playback_, &latency, &negative) == 0;
    const bool overfull =
        known && negative == 0 &&
        latency > static_cast<pa_usec_t>(kPlaybackRoom * config_.targetLatency.count() * 1000);
    std::size_t offset = 0;
    while (!overfull && offset < bytes) {
      std::size_t chunk = std::min(bytes - offset, silence_.size() * sizeof(float));
      chunk -= chunk % kBytesPerFrame;
      void* out = nullptr;
      std::size_t writable = chunk;
      if (pa_stream_begin_write(playback_, &out, &writable) < 0 || out == nullptr) {
        break;
      }
      chunk = std::min(chunk, writable - writable % kBytesPerFrame);
      // The block may write nothing (muted): the device then plays this silence.
      std::memset(out, 0, chunk);
      AudioBuffer inBuffer{
          kChannels, static_cast<UInt32>(chunk),
          data != nullptr
              ? const_cast<void*>(static_cast<const void*>(static_cast<const char*>(data) + offset))
              : static_cast<void*>(silence_.data())};
      AudioBuffer outBuffer{kChannels, static_cast<UInt32>(chunk), out};
      const AudioBufferList inList{1, &inBuffer};
      AudioBufferList outList{1, &outBuffer};
      config_.block(nullptr, &inList, nullptr, &outList, nullptr);
      pa_stream_write(playback_, out, chunk, nullptr, 0, PA_SEEK_RELATIVE);
      offset += chunk;
    }
    if (offset < bytes) {
      droppedFrames_.fetch_add((bytes - offset) / kBytesPerFrame, std::memory_order_relaxed);
    }
    cycles_.fetch_add(1, std::memory_order_relaxed);
    pa_stream_drop(record_);
  }
}

void PulseIOPath::rateTimerCallback(pa_mainloop_api* api, pa_time_event* event,
                                    const struct timeval*, void* userdata) {
  pathOf(userdata)->adjustRate();
  timeval when{};
  pa_gettimeofday(&when);
  pa_timeval_add(&when, static_cast<pa_usec_t>(kRateCheckInterval.count()) * PA_USEC_PER_MSEC);
  api->time_restart(event, &when);
}

void PulseIOPath::adjustRate() {
  pa_usec_t latency = 0;
  int negative = 0;
  if (pa_stream_get_latency(playback_, &latency, &negative) < 0) {
    return;
  }
  const double queuedMs = negative != 0 ? 0.0 : static_cast<double>(latency) / 1000.0;
  playbackLatencyMs_.store(queuedMs, std::memory_order_relaxed);
  // More queued than wanted: the tap's clock runs ahead of the output's, so ask for fewer
  // samples per second, and the other way round.
  const double target = static_cast<double>(config_.targetLatency.count());
  const double error = (queuedMs - kHeldLatency * target) / target;
  rateCorrection_ =
      std::clamp(1.0 - kRateGain * error, 1.0 - kMaxRateCorrection, 1.0 + kMaxRateCorrection);
  const auto rate = static_cast<std::uint32_t>(std::lround(config_.sampleRate * rateCorrection_));
  pa_operation* operation = pa_stream_update_sample_rate(record_, rate, nullptr, nullptr);
  if (operation != nullptr) {
    pa_operation_unref(operation);
  }
  reportedCorrection_.store(rateCorrection_, std::memory_order_relaxed);
}

PulseIOPath::Statistics PulseIOPath::statistics() const {
  return {cycles_.load(std::memory_order_relaxed), underruns_.load(std::memory_order_relaxed),
          droppedFrames_.load(std::memory_order_relaxed),
          playbackLatencyMs_.load(std::memory_order_relaxed),
          reportedCorrection_.load(std::memory_order_relaxed)};
}

}  // namespace quellix
