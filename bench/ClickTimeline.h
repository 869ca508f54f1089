#pragma once

// What the tap-path benchmarks share: the CPU of this process's threads and children, and the
// added latency of each path a click track takes to the output, from one recording.
#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cmath>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "harness/LevelMeter.h"

namespace quellix::bench {

using Clock = std::chrono::steady_clock;

// The rate of every recording here.
inline constexpr std::size_t kRate = 48000;

// CPU seconds used so far by the task or process whose stat file this is.
inline double cpuSecondsOf(const std::string& statFile) {
  std::string stat;
  std::getline(std::ifstream(statFile), stat);
  if (stat.empty())
    return 0;
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  unsigned long long user = 0;
  unsigned long long system = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14)
      user = std::stoull(field);
    if (i == 15)
      system = std::stoull(field);
  }
  return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

struct ThreadUse {
  double cpuSeconds = 0;
  unsigned long long wakeUps = 0;
};

// What this process's threads with the given name used so far: CPU to the nanosecond, and how
// often they went to sleep.
inline ThreadUse threadUse(const std::string& name) {
  ThreadUse use;
  DIR* tasks = ::opendir("/proc/self/task");
  while (dirent* entry = tasks != nullptr ? ::readdir(tasks) : nullptr) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm;
    std::getline(std::ifstream(task + "/comm"), comm);
    if (comm != name) {
      continue;
    }
    unsigned long long runNs = 0;
    std::ifstream(task + "/schedstat") >> runNs;
    use.cpuSeconds += static_cast<double>(runNs) / 1e9;
    std::ifstream status(task + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
        use.wakeUps += std::stoull(line.substr(line.find(':') + 1));
      }
    }
  }
  if (tasks != nullptr) {
    ::closedir(tasks);
  }
  return use;
}

inline double threadCPUSeconds(const std::string& name) {
  return threadUse(name).cpuSeconds;
}

// CPU seconds used so far by this process's children: the sound server, the player and the
// recorder.
inline double childrenCPUSeconds() {
  double seconds = 0;
  DIR* processes = ::opendir("/proc");
  while (dirent* entry = processes != nullptr ? ::readdir(processes) : nullptr) {
    const std::string stat = std::string("/proc/") + entry->d_name + "/stat";
    std::string line;
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0])) ||
        !std::getline(std::ifstream(stat), line))
      continue;
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string state;
    pid_t parent = 0;
    if (fields >> state >> parent && parent == ::getpid())
      seconds += cpuSecondsOf(stat);
  }
  if (processes != nullptr)
    ::closedir(processes);
  return seconds;
}

// The frame of a recording that was playing at a moment, counted back from when the recording
// stopped. The recorder's own lag makes every frame look later than it sounded.
inline std::size_t frameAt(std::size_t frames, Clock::time_point stoppedAt, Clock::time_point at) {
  const double before =
      std::chrono::duration<double>(stoppedAt - at).count() * static_cast<double>(kRate);
  return before >= static_cast<double>(frames) ? std::size_t{0}
                                               : frames - static_cast<std::size_t>(before);
}

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

}  // namespace quellix::bench
