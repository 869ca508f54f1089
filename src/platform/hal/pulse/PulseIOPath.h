#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/hal/AudioHardware.h"

struct pa_context;
struct pa_stream;
struct pa_threaded_mainloop;
struct pa_time_event;
struct pa_mainloop_api;
struct timeval;

namespace quellix {

// The IO of one started aggregate device: records the tap sink's monitor and plays to the
// main sub-device, calling the IO block on its own IO thread in between with interleaved
// float32 stereo buffers. Keeps the playback latency near its target by adjusting the record
// stream's rate, so the two clocks never drift apart.
class PulseIOPath {
 public:
  struct Config {
    std::string server;      // empty: the usual one
    std::string sourceName;  // the tap sink's monitor
    std::string sinkName;    // the main sub-device
    std::uint32_t sampleRate = 48000;
    AudioDeviceIOBlock block;
    std::chrono::milliseconds targetLatency{20};
    std::chrono::milliseconds timeout{3000};
  };

  struct Statistics {
    std::uint64_t cycles = 0;
    std::uint64_t underruns = 0;
    std::uint64_t droppedFrames = 0;
    double playbackLatencyMs = 0;  // until what is written now is heard
    double rateCorrection = 1.0;
  };

  // Connects and starts both streams; null and a status when that fails.
  static std::unique_ptr<PulseIOPath> start(Config config, OSStatus& status);
  ~PulseIOPath();
  PulseIOPath(const PulseIOPath&) = delete;
  PulseIOPath& operator=(const PulseIOPath&) = delete;

  Statistics statistics() const;

 private:
  explicit PulseIOPath(Config config);
  bool connect();

  // On the IO thread.
  void onReadable();
  void adjustRate();

  static void contextStateCallback(pa_context* context, void* userdata);
  static void streamStateCallback(pa_stream* stream, void* userdata);
  static void readCallback(pa_stream* stream, std::size_t bytes, void* userdata);
  static void underflowCallback(pa_stream* stream, void* userdata);
  static void rateTimerCallback(pa_mainloop_api* api, pa_time_event* event,
                                const struct timeval* tv, void* userdata);

  Config config_;
  pa_threaded_mainloop* mainloop_ = nullptr;
  pa_context* context_ = nullptr;
  pa_stream* record_ = nullptr;
  pa_stream* playback_ = nullptr;
  pa_time_event* rateTimer_ = nullptr;
  // Silence for the holes a record stream may report, sized once up front.
  std::vector<float> silence_;
  // IO-thread state of the rate control.
  double rateCorrection_ = 1.0;
  std::atomic<std::uint64_t> cycles_{0};
  std::atomic<std::uint64_t> underruns_{0};
  std::atomic<std::uint64_t> droppedFrames_{0};
  std::atomic<double> playbackLatencyMs_{0};
  std::atomic<double> reportedCorrection_{1.0};
};

}  // namespace quellix
