#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/AudioHardware.h"
#include "audio/pulse/HeldLatency.h"
#include "audio/pulse/PacedMainloop.h"

struct pa_context;
struct pa_stream;
struct SpeexResamplerState_;
typedef struct SpeexResamplerState_ SpeexResamplerState;

namespace quellix {

// The IO of one started aggregate device: records the tap sink's monitor and plays to the
// main sub-device, calling the IO block on its own IO thread in between with interleaved
// float32 stereo buffers. Keeps the playback latency near its target by resampling what the
// block produced by a slowly steered ratio, so the two clocks never drift apart. The ratio is
// ours rather than the server's: a record stream's rate update is not honoured everywhere.
class PulseIOPath {
 public:
  struct Config {
    std::string server;      // empty: the usual one
    std::string sourceName;  // the tap sink's monitor
    std::string sinkName;    // the main sub-device
    std::uint32_t sampleRate = 48000;
    AudioDeviceIOBlock block;
    std::chrono::milliseconds targetLatency{20};
    // For a launched path: called on the IO thread when its streams cannot connect.
    std::function<void()> onStartFailed;
  };

  struct Statistics {
    std::uint64_t cycles = 0;
    std::uint64_t underruns = 0;
    std::uint64_t droppedFrames = 0;
    double playbackLatencyMs = 0;  // until what is written now is heard
    double heldLatencyMs = 0;      // what the steering aims at; raised by underruns
    double rateCorrection = 1.0;
  };

  // Starts connecting on the IO thread and returns at once; null only when it cannot begin.
  static std::unique_ptr<PulseIOPath> launch(Config config);
  ~PulseIOPath();
  PulseIOPath(const PulseIOPath&) = delete;
  PulseIOPath& operator=(const PulseIOPath&) = delete;

  Statistics statistics() const;

 private:
  enum class Startup { connecting, running, failed };

  explicit PulseIOPath(Config config);
  bool connect();
  void finishStartup(Startup outcome);

  // On the IO thread.
  void beginConnecting();
  void onStateChange();
  bool connectStreams();
  void onReadable(std::size_t readable);
  void play(const float* input, std::size_t frames);
  // Writes all but what is owed: frames a slow pace queued as silence ahead of time.
  void writeOutput(const float* samples, std::size_t frames);
  void followPace(bool outputSilent, bool inputSilent, std::size_t frames);
  // The held latency, and at the slow pace the silence queued ahead of its longer wait.
  double aimedLatencyMs() const;
  void onUnderrun();
  // What the playback holds by the latency reading less its known excess, in ms; publishes
  // the reading.
  std::optional<double> queuedMs();
  void refill();
  void writeSilence(double milliseconds);
  void writeSilenceFrames(std::size_t frames);
  void onTick();
  void adjustRate();

  static void contextStateCallback(pa_context* context, void* userdata);
  static void streamStateCallback(pa_stream* stream, void* userdata);
  static void readCallback(pa_stream* stream, std::size_t bytes, void* userdata);
  static void underflowCallback(pa_stream* stream, void* userdata);
  static void refillCallback(pa_stream* stream, int success, void* userdata);

  Config config_;
  PacedMainloop loop_;
  std::mutex startupMutex_;
  Startup startup_ = Startup::connecting;
  pa_context* context_ = nullptr;
  pa_stream* record_ = nullptr;
  pa_stream* playback_ = nullptr;
  SpeexResamplerState* resampler_ = nullptr;
  // Buffers of the IO thread, sized once up front: silence for the holes a record stream may
  // report, what the block produced, and that resampled.
  std::vector<float> silence_;
  std::vector<float> processed_;
  std::vector<float> resampled_;
  // IO-thread state of the steering.
  std::uint32_t outputRate_ = 0;  // the converter's, for the sample rate in
  double silenceCarry_ = 0;
  std::size_t silenceThroughResampler_ = SIZE_MAX;  // frames since the last sound
  HeldLatency held_;
  double smoothedLatencyMs_ = -1;
  std::size_t skipBytes_ = 0;
  bool quiet_ = false;
  bool delivered_ = false;          // the monitor delivered at least once
  std::size_t silencedFrames_ = 0;  // sound in that the block made silent, in a row
  std::size_t owedFrames_ = 0;
  int lastTickLength_ = 1;  // in ticks of the usual pace
  std::uint64_t ticks_ = 0;
  std::atomic<std::uint64_t> cycles_{0};
  std::atomic<std::uint64_t> underruns_{0};
  std::atomic<std::uint64_t> droppedFrames_{0};
  std::atomic<double> playbackLatencyMs_{0};
  std::atomic<double> reportedHeldLatencyMs_{0};
  std::atomic<double> reportedRatio_{1.0};
};

}  // namespace quellix
