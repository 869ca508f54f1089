#include "audio/pulse/PulseIOPath.h"

#include <pulse/pulseaudio.h>
#include <speex/speex_resampler.h>

#include <algorithm>
#include <cmath>

#include "audio/pulse/PulseModel.h"
#include "support/BuildInfo.h"

namespace quellix {
namespace {

constexpr std::uint8_t kChannels = 2;
constexpr std::size_t kBytesPerFrame = kChannels * sizeof(float);
// The monitor is read in small fragments: a null sink renders in large blocks unless a client
// asks it for low latency.
constexpr std::chrono::milliseconds kRecordFragment{10};
// Room in the playback buffer, in held latencies: a tap sink still delivers blocks as large
// as its other clients ask for. Sound beyond it is dropped (the first blocks of a new tap);
// within it the steering pulls the latency back to the held one.
constexpr double kPlaybackRoom = 3.0;
// The IO thread wakes at this pace once both streams run: the monitor arrives in whatever
// fragments the tapped player asks for, and handling each as it comes costs a context switch.
constexpr std::chrono::microseconds kIOTick{5000};
// A tap that the block silences while its player plays (muted, the usual state) is woken at a
// slower pace, with one slow tick of silence queued on top of the held latency. The block's
// output tells it: once it lets sound through again, the pace is back to the usual one and
// the extra silence is left out of what follows, which shifts the first sound after a gain
// change by that much. A silent player ends the slow pace too: a sound that starts after a
// pause keeps its latency. An underrun at the slow pace is silence missing from silence: it
// holds no more latency for the sound to come.
constexpr std::chrono::microseconds kQuietTick{20000};
constexpr int kTicksPerQuietTick = static_cast<int>(kQuietTick / kIOTick);
constexpr double kQuietExtraMs = std::chrono::duration<double, std::milli>(kQuietTick).count();
constexpr std::chrono::milliseconds kQuietAfter{500};
constexpr int kTicksPerRateCheck = 20;
// The latency reading moves by a whole fragment between two arrivals: the steering follows
// its average over about a second.
constexpr double kLatencySmoothing = 0.1;
// The largest deviation of the ratio (a correction of 5 ms per second, below what an ear
// notices as pitch) and how hard the latency error, in held latencies, pulls.
constexpr double kMaxRateCorrection = 0.005;
constexpr double kRateGain = 0.01;
// The sound server's own default converter quality: what its loopback plays through when it
// corrects drift the same way. Higher qualities cost up to three times as much per tap.
constexpr int kResamplerQuality = 1;
constexpr std::size_t kChunkFrames = 2048;
// More than the converter looks ahead, so that it has played out the sound before a silence.
constexpr std::size_t kResamplerFlushFrames = 256;
// Each chunk resampled may grow by the largest correction plus what the converter holds back.
constexpr std::size_t kResampledFrames =
    static_cast<std::size_t>(kChunkFrames * (1 + kMaxRateCorrection)) + 64;

std::uint32_t bytesFor(std::chrono::milliseconds duration, std::uint32_t rate) {
  return static_cast<std::uint32_t>(rate * duration.count() / 1000) *
         static_cast<std::uint32_t>(kBytesPerFrame);
}

std::size_t framesFor(double milliseconds, std::uint32_t rate) {
  return static_cast<std::size_t>(std::max(milliseconds, 0.0) * rate / 1000.0);
}

PulseIOPath* pathOf(void* userdata) {
  return static_cast<PulseIOPath*>(userdata);
}

}  // namespace

std::unique_ptr<PulseIOPath> PulseIOPath::launch(Config config) {
  std::unique_ptr<PulseIOPath> path(new PulseIOPath(std::move(config)));
  return path->connect() ? std::move(path) : nullptr;
}

PulseIOPath::PulseIOPath(Config config)
    : config_(std::move(config)),
      silence_(kResampledFrames * kChannels, 0.0f),
      processed_(kChunkFrames * kChannels, 0.0f),
      resampled_(kResampledFrames * kChannels, 0.0f),
      held_(config_.targetLatency, kIOTick),
      reportedHeldLatencyMs_(held_.heldMs()) {}

PulseIOPath::~PulseIOPath() {
  // The loop's thread ends first; the streams and the context are then this thread's alone.
  loop_.stop();
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
  if (resampler_ != nullptr) {
    speex_resampler_destroy(resampler_);
  }
}

bool PulseIOPath::connect() {
  int error = 0;
  const spx_uint32_t rate = config_.sampleRate;
  resampler_ = speex_resampler_init(kChannels, rate, rate, kResamplerQuality, &error);
  if (resampler_ == nullptr) {
    return false;
  }
  // The converter's filter grows when it slows the sound down, and it allocates when it
  // grows: at its largest once here, so that steering on the IO thread never allocates.
  const auto slowest = static_cast<spx_uint32_t>(std::lround(rate * (1 - kMaxRateCorrection)));
  speex_resampler_set_rate(resampler_, rate, slowest);
  speex_resampler_set_rate(resampler_, rate, rate);
  outputRate_ = rate;
  loop_.start(
      "quellix-io", [this] { beginConnecting(); }, [this] { onTick(); });
  return true;
}

void PulseIOPath::finishStartup(Startup outcome) {
  {
    std::lock_guard lock(startupMutex_);
    if (startup_ != Startup::connecting) {
      return;
    }
    startup_ = outcome;
  }
  if (outcome == Startup::failed && config_.onStartFailed) {
    config_.onStartFailed();
  }
}

void PulseIOPath::beginConnecting() {
  pa_proplist* properties = pa_proplist_new();
  pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Quellix");
  pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, build::kBundleIdentifier);
  context_ = pa_context_new_with_proplist(loop_.api(), "Quellix IO", properties);
  pa_proplist_free(properties);
  if (context_ == nullptr) {
    finishStartup(Startup::failed);
    return;
  }
  pa_context_set_state_callback(context_, &PulseIOPath::contextStateCallback, this);
  const char* server = config_.server.empty() ? nullptr : config_.server.c_str();
  if (pa_context_connect(context_, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
    finishStartup(Startup::failed);
  }
}

void PulseIOPath::onStateChange() {
  const pa_context_state_t state = pa_context_get_state(context_);
  if (!PA_CONTEXT_IS_GOOD(state)) {
    finishStartup(Startup::failed);
    return;
  }
  if (state != PA_CONTEXT_READY) {
    return;
  }
  if (record_ == nullptr) {
    if (!connectStreams()) {
      finishStartup(Startup::failed);
    }
    return;
  }
  const pa_stream_state_t recordState = pa_stream_get_state(record_);
  const pa_stream_state_t playbackState = pa_stream_get_state(playback_);
  // A stream reports its state while the other is still unconnected.
  auto failed = [](pa_stream_state_t streamState) {
    return streamState == PA_STREAM_FAILED || streamState == PA_STREAM_TERMINATED;
  };
  if (failed(recordState) || failed(playbackState)) {
    finishStartup(Startup::failed);
  } else if (recordState == PA_STREAM_READY && playbackState == PA_STREAM_READY) {
    // The server starts playing once it holds a fragment, and the steering would take
    // seconds to queue the rest: the first sound starts with the held latency queued instead.
    writeSilence(held_.heldMs());
    loop_.setPaced(kIOTick);
    finishStartup(Startup::running);
  }
}

bool PulseIOPath::connectStreams() {
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
  return pa_stream_connect_playback(playback_, config_.sinkName.c_str(), &playbackAttributes,
                                    static_cast<pa_stream_flags_t>(timed), nullptr, nullptr) == 0 &&
         pa_stream_connect_record(record_, config_.sourceName.c_str(), &recordAttributes,
                                  static_cast<pa_stream_flags_t>(common)) == 0;
}

void PulseIOPath::contextStateCallback(pa_context*, void* userdata) {
  pathOf(userdata)->onStateChange();
}

void PulseIOPath::streamStateCallback(pa_stream*, void* userdata) {
  pathOf(userdata)->onStateChange();
}

void PulseIOPath::readCallback(pa_stream*, std::size_t bytes, void* userdata) {
  pathOf(userdata)->onReadable(bytes);
}

void PulseIOPath::underflowCallback(pa_stream*, void* userdata) {
  pathOf(userdata)->onUnderrun();
}

void PulseIOPath::onReadable(std::size_t readable) {
  delivered_ = true;
  // Every libpulse call costs a system call of its own (a fork check), so the loop peeks only
  // as many fragments as the server announced and asks for no latency here.
  const std::size_t room =
      framesFor(kPlaybackRoom * held_.heldMs(), config_.sampleRate) * kBytesPerFrame;
  while (readable > 0) {
    const void* data = nullptr;
    std::size_t bytes = 0;
    if (pa_stream_peek(record_, &data, &bytes) < 0 || bytes == 0) {
      return;
    }
    readable -= std::min(readable, bytes);
    // A backlog larger than the room (what a new tap's sink rendered before it was asked for
    // small blocks) would only add latency, as would what the steering found too much.
    std::size_t offset = 0;
    if (readable > room) {
      offset = bytes;
    } else if (skipBytes_ > 0) {
      offset = std::min(bytes, skipBytes_) / kBytesPerFrame * kBytesPerFrame;
      skipBytes_ -= offset;
    }
    droppedFrames_.fetch_add(offset / kBytesPerFrame, std::memory_order_relaxed);
    // A hole in the record stream is silence.
    const auto* input = static_cast<const float*>(data);
    while (offset + kBytesPerFrame <= bytes) {
      const std::size_t frames = std::min((bytes - offset) / kBytesPerFrame, kChunkFrames);
      play(input != nullptr ? input + offset / sizeof(float) : silence_.data(), frames);
      offset += frames * kBytesPerFrame;
    }
    cycles_.fetch_add(1, std::memory_order_relaxed);
    pa_stream_drop(record_);
  }
}

void PulseIOPath::play(const float* input, std::size_t frames) {
  const auto bytes = static_cast<UInt32>(frames * kBytesPerFrame);
  // The block may write nothing (muted): the device then plays this silence.
  std::fill_n(processed_.data(), frames * kChannels, 0.0f);
  AudioBuffer inBuffer{kChannels, bytes, const_cast<float*>(input)};
  AudioBuffer outBuffer{kChannels, bytes, processed_.data()};
  const AudioBufferList inList{1, &inBuffer};
  AudioBufferList outList{1, &outBuffer};
  config_.block(nullptr, &inList, nullptr, &outList, nullptr);

  // A muted tap, the common case, plays silence: it needs no filtering, only the steered
  // number of frames. The converter first plays out the end of the sound before it, and keeps
  // the silence it then holds: the sound that follows starts as late as it would have, and
  // neither end loses a frame.
  auto isSilent = [frames](const float* samples) {
    return std::all_of(samples, samples + frames * kChannels,
                       [](float sample) { return sample == 0.0f; });
  };
  const bool silent = isSilent(processed_.data());
  followPace(silent, isSilent(input), frames);
  if (silent && silenceThroughResampler_ >= kResamplerFlushFrames) {
    const double ratio = static_cast<double>(outputRate_) / config_.sampleRate;
    const double silentFrames = static_cast<double>(frames) * ratio + silenceCarry_;
    const auto whole = static_cast<std::size_t>(silentFrames);
    silenceCarry_ = silentFrames - static_cast<double>(whole);
    writeOutput(silence_.data(), whole);
    return;
  }
  silenceThroughResampler_ = silent ? silenceThroughResampler_ + frames : 0;
  auto consumed = static_cast<spx_uint32_t>(frames);
  auto produced = static_cast<spx_uint32_t>(kResampledFrames);
  if (speex_resampler_process_interleaved_float(resampler_, processed_.data(), &consumed,
                                                resampled_.data(), &produced) != 0 ||
      produced == 0) {
    return;
  }
  writeOutput(resampled_.data(), produced);
}

void PulseIOPath::writeOutput(const float* samples, std::size_t frames) {
  const std::size_t left = std::min(frames, owedFrames_);
  owedFrames_ -= left;
  if (frames > left) {
    pa_stream_write(playback_, samples + left * kChannels, (frames - left) * kBytesPerFrame,
                    nullptr, 0, PA_SEEK_RELATIVE);
  }
}

void PulseIOPath::followPace(bool outputSilent, bool inputSilent, std::size_t frames) {
  if (quiet_) {
    if (!outputSilent || inputSilent) {
      quiet_ = false;
      silencedFrames_ = 0;
      loop_.setPaced(kIOTick);
      if (smoothedLatencyMs_ >= 0) {
        smoothedLatencyMs_ -= kQuietExtraMs;
      }
      owedFrames_ = framesFor(kQuietExtraMs, config_.sampleRate);
    }
    return;
  }
  silencedFrames_ = outputSilent && !inputSilent ? silencedFrames_ + frames : 0;
  if (silencedFrames_ >= framesFor(kQuietAfter.count(), config_.sampleRate)) {
    quiet_ = true;
    loop_.setPaced(kQuietTick);
    if (smoothedLatencyMs_ >= 0) {
      smoothedLatencyMs_ += kQuietExtraMs;
    }
    // Silence still owed from a slow pace just left is silence not yet written.
    const std::size_t extra = framesFor(kQuietExtraMs, config_.sampleRate);
    writeSilenceFrames(extra - std::min(extra, owedFrames_));
    owedFrames_ = 0;
  }
}

double PulseIOPath::aimedLatencyMs() const {
  return held_.heldMs() + (quiet_ ? kQuietExtraMs : 0.0);
}

void PulseIOPath::writeSilence(double milliseconds) {
  writeSilenceFrames(framesFor(milliseconds, config_.sampleRate));
}

void PulseIOPath::writeSilenceFrames(std::size_t frames) {
  while (frames > 0) {
    const std::size_t chunk = std::min(frames, kResampledFrames);
    pa_stream_write(playback_, silence_.data(), chunk * kBytesPerFrame, nullptr, 0,
                    PA_SEEK_RELATIVE);
    frames -= chunk;
  }
}

void PulseIOPath::onUnderrun() {
  underruns_.fetch_add(1, std::memory_order_relaxed);
  // What it holds from now on is published with the next tick. Until the monitor first
  // delivers, the playback runs dry for want of sound, not of latency: the tap sink may still
  // be rendering ahead what it took from its players before this path asked for small blocks.
  if (!quiet_ && delivered_) {
    held_.onUnderrun();
  }
  // After an underrun the server waits for a fragment and then plays on from a near-empty
  // queue, where the next late wake-up breaks the sound again. The gap is already audible:
  // refill it to the held latency at once, as soon as a fresh reading tells how much is queued.
  if (pa_operation* update =
          pa_stream_update_timing_info(playback_, &PulseIOPath::refillCallback, this)) {
    pa_operation_unref(update);
  }
}

void PulseIOPath::refillCallback(pa_stream*, int success, void* userdata) {
  if (success != 0) {
    pathOf(userdata)->refill();
  }
}

std::optional<double> PulseIOPath::queuedMs() {
  pa_usec_t latency = 0;
  int negative = 0;
  if (pa_stream_get_latency(playback_, &latency, &negative) < 0) {
    return std::nullopt;
  }
  const double readingMs = negative != 0 ? 0.0 : static_cast<double>(latency) / 1000.0;
  playbackLatencyMs_.store(readingMs, std::memory_order_relaxed);
  return std::max(readingMs - held_.readingExcessMs(), 0.0);
}

void PulseIOPath::refill() {
  const auto queued = queuedMs();
  if (queued && *queued < aimedLatencyMs()) {
    writeSilence(aimedLatencyMs() - *queued);
  }
}

void PulseIOPath::onTick() {
  // Time is counted in ticks of the usual pace; a change of pace takes effect after the tick
  // in which it was made.
  const int elapsed = lastTickLength_;
  lastTickLength_ = quiet_ ? kTicksPerQuietTick : 1;
  for (int tick = 0; tick < elapsed; ++tick) {
    held_.onTick();
  }
  reportedHeldLatencyMs_.store(held_.heldMs(), std::memory_order_relaxed);
  const std::uint64_t before = ticks_;
  ticks_ += static_cast<std::uint64_t>(elapsed);
  if (ticks_ / kTicksPerRateCheck != before / kTicksPerRateCheck) {
    adjustRate();
  }
}

void PulseIOPath::adjustRate() {
  const auto queued = queuedMs();
  if (!queued) {
    return;
  }
  const double heldMs = aimedLatencyMs();
  if (*queued > kPlaybackRoom * heldMs) {
    // Far too much queued (a burst): drop what is over at once rather than play it fast.
    skipBytes_ = framesFor(*queued - heldMs, config_.sampleRate) * kBytesPerFrame;
    smoothedLatencyMs_ = heldMs;
    return;
  }
  smoothedLatencyMs_ =
      smoothedLatencyMs_ < 0
          ? *queued
          : smoothedLatencyMs_ + kLatencySmoothing * (*queued - smoothedLatencyMs_);
  // More queued than held: the tap's clock runs ahead of the output's, so make fewer samples
  // of each second, and the other way round.
  const double error = (smoothedLatencyMs_ - heldMs) / heldMs;
  const double wanted =
      std::clamp(1.0 - kRateGain * error, 1.0 - kMaxRateCorrection, 1.0 + kMaxRateCorrection);
  // The converter is steered in whole output hertz (2e-5 of the rate: 0.02 ms of latency per
  // second): finer fractions overflow its arithmetic.
  const double rate = config_.sampleRate;
  const auto outputRate = static_cast<spx_uint32_t>(std::lround(rate * wanted));
  if (outputRate != outputRate_) {
    speex_resampler_set_rate(resampler_, config_.sampleRate, outputRate);
    outputRate_ = outputRate;
    reportedRatio_.store(outputRate / rate, std::memory_order_relaxed);
  }
}

PulseIOPath::Statistics PulseIOPath::statistics() const {
  return {cycles_.load(std::memory_order_relaxed),
          underruns_.load(std::memory_order_relaxed),
          droppedFrames_.load(std::memory_order_relaxed),
          playbackLatencyMs_.load(std::memory_order_relaxed),
          reportedHeldLatencyMs_.load(std::memory_order_relaxed),
          reportedRatio_.load(std::memory_order_relaxed)};
}

}  // namespace quellix
