#pragma once

// What the tap path benchmark measures with: CPU of threads and processes, the server's view
// of sinks and streams, and analyses of recordings of the output.

#include <sys/types.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio/pulse/PulseBackend.h"
#include "harness/LevelMeter.h"
#include "harness/SoundServer.h"

namespace quellix::tappath {

using Clock = std::chrono::steady_clock;

// The rate of every recording here.
constexpr std::size_t kRate = 48000;

// CPU seconds used so far by the task or process whose stat file this is.
double cpuSecondsOf(const std::string& statFile);

struct ThreadUse {
  double cpuSeconds = 0;
  unsigned long long wakeUps = 0;
};

// What this process's threads with the given name used so far: CPU to the nanosecond, and how
// often they went to sleep.
ThreadUse threadUse(const std::string& name);
double threadCPUSeconds(const std::string& name);
// CPU seconds used so far by this process's children: the sound server, the player and the
// recorder.
double childrenCPUSeconds();

// The "Latency:" line `pactl list sinks` gives for the first sink whose name starts so.
std::string sinkLatencyLine(const testing::SoundServer& server, const std::string& prefix);
std::vector<AudioObjectID> processObjectsOf(const PulseBackend& backend, pid_t pid);
// Moves the player's stream with pactl until the server reports it on `sink`: a move may be
// acknowledged and not carried out.
bool moveStream(const testing::SoundServer& server, const PulseBackend& backend, pid_t pid,
                const std::string& sink);

// Where a steady sine in channel 0 of a recording breaks, in seconds from the recording's
// start (see the definition for how).
std::vector<double> dropoutsIn(const std::vector<float>& recording, double frequency,
                               double settleSeconds, std::size_t endFrame = SIZE_MAX);
std::string secondsList(const std::vector<double>& times);
// The frame of a recording that was playing at a moment, counted back from when the recording
// stopped. The recorder's own lag makes every frame look later than it sounded.
std::size_t frameAt(std::size_t frames, Clock::time_point stoppedAt, Clock::time_point at);
// Milliseconds from `from` until the first 50 ms of silence in channel 0.
std::optional<double> silenceAfter(const std::vector<float>& recording, std::size_t from);

// The added latency of a path, measured by clicks at a steady period of the player's samples:
// one recording of the output spans every path in turn, and each path shifts the clicks by its
// latency. The shift against the direct path before and after it is the added latency; the
// direct path's own shift between two visits tells how steady the measure is. Each segment
// also keeps the CPU the sound server and the IO thread used in it.
class BurstTimeline {
 public:
  static constexpr int kPeriodMs = 500;

  void mark(const std::string& name) {
    const Clock::time_point now = Clock::now();
    const double cpu = childrenCPUSeconds() + threadCPUSeconds("quellix-io");
    if (!segments_.empty()) {
      auto& last = segments_.back();
      last.cpuPercent = 100.0 * (cpu - last.cpuAtStart) /
                        std::chrono::duration<double>(now - last.startedAt).count();
    }
    segments_.push_back({name, now, cpu});
  }

  void finish(const std::vector<float>& recording, Clock::time_point stoppedAt) {
    constexpr float kThreshold = 0.1f;
    constexpr std::size_t kQuietBefore = kRate / 20;
    const std::size_t frames = recording.size() / 2;
    auto frameOf = [&](Clock::time_point at) { return frameAt(frames, stoppedAt, at); };
    std::vector<std::size_t> onsets;
    std::size_t lastLoud = 0;
    for (std::size_t frame = 0; frame < frames; ++frame) {
      if (std::abs(recording[2 * frame]) <= kThreshold)
        continue;
      if (onsets.empty() || frame - lastLoud > kQuietBefore)
        onsets.push_back(frame);
      lastLoud = frame;
    }
    // The reference is the first path's median phase, found from its first burst, which may be
    // a stray, in two corrections.
    std::optional<double> reference;
    for (int pass = 0;; ++pass) {
      foldPhases(onsets, frameOf, frames, reference);
      if (pass == 2 || segments_.empty() || segments_.front().phasesMs.empty())
        return;
      reference = std::fmod(*reference + testing::medianOf(segments_.front().phasesMs) + kPeriodMs,
                            kPeriodMs);
    }
  }

  std::optional<double> shiftMs(const std::string& name) const {
    for (const auto& segment : segments_) {
      if (segment.name == name && !segment.phasesMs.empty())
        return testing::medianOf(segment.phasesMs);
    }
    return std::nullopt;
  }

  // Of a segment that another followed.
  double cpuPercent(const std::string& name) const {
    for (const auto& segment : segments_) {
      if (segment.name == name)
        return segment.cpuPercent;
    }
    return 0;
  }

 private:
  struct Segment {
    std::string name;
    Clock::time_point startedAt;
    double cpuAtStart = 0;
    double cpuPercent = 0;
    std::vector<double> phasesMs;
  };

  template <typename FrameOf>
  void foldPhases(const std::vector<std::size_t>& onsets, const FrameOf& frameOf,
                  std::size_t frames, std::optional<double>& reference) {
    constexpr std::size_t kPeriod = kRate * kPeriodMs / 1000;
    for (std::size_t i = 0; i < segments_.size(); ++i) {
      // The paths settle for a while after each switch.
      const std::size_t from = frameOf(segments_[i].startedAt + std::chrono::milliseconds(1500));
      const std::size_t to =
          i + 1 < segments_.size() ? frameOf(segments_[i + 1].startedAt) : frames;
      std::vector<double> phases;
      for (std::size_t onset : onsets) {
        if (onset < from || onset >= to)
          continue;
        double phase = static_cast<double>(onset % kPeriod) * 1000.0 / kRate;
        if (!reference)
          reference = phase;
        // Relative to the reference, folded so that a path may be a little faster.
        phase = std::fmod(phase - *reference + kPeriodMs * 2.25, kPeriodMs) - kPeriodMs * 0.25;
        phases.push_back(phase);
      }
      segments_[i].phasesMs = phases;
    }
  }

  std::vector<Segment> segments_;
};

}  // namespace quellix::tappath
