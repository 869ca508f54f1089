#include "TapPathMeasures.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

namespace quellix::tappath {

// CPU seconds used so far by the task or process whose stat file this is.
double cpuSecondsOf(const std::string& statFile) {
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

// What this process's threads with the given name used so far: CPU to the nanosecond, and how
// often they went to sleep.
ThreadUse threadUse(const std::string& name) {
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

double threadCPUSeconds(const std::string& name) {
  return threadUse(name).cpuSeconds;
}

// CPU seconds used so far by this process's children: the sound server, the player and the
// recorder.
double childrenCPUSeconds() {
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

// The "Latency:" line `pactl list sinks` gives for the first sink whose name starts so.
std::string sinkLatencyLine(const testing::SoundServer& server, const std::string& prefix) {
  std::istringstream sinks(server.pactl({"list", "sinks"}));
  bool inSink = false;
  for (std::string line; std::getline(sinks, line);) {
    if (line.find("Name: ") != std::string::npos)
      inSink = line.find("Name: " + prefix) != std::string::npos;
    else if (inSink && line.find("Latency: ") != std::string::npos)
      return line.substr(line.find("Latency: ") + 9);
  }
  return "not found";
}

std::vector<AudioObjectID> processObjectsOf(const PulseBackend& backend, pid_t pid) {
  std::vector<AudioObjectID> objects;
  testing::eventually([&] {
    objects.clear();
    for (const auto& process : backend.snapshot()->processes) {
      if (process.pid == pid)
        objects.push_back(process.id);
    }
    return !objects.empty();
  });
  return objects;
}

// Moves the player's stream with pactl until the server reports it on `sink`: a move may be
// acknowledged and not carried out.
bool moveStream(const testing::SoundServer& server, const PulseBackend& backend, pid_t pid,
                const std::string& sink) {
  auto placement = [&]() -> std::pair<std::uint32_t, bool> {
    const auto snapshot = backend.snapshot();
    const auto* device = snapshot->deviceWithUID(sink);
    for (const auto& input : snapshot->sinkInputs) {
      if (input.pid == pid && !input.isOurIO)
        return {input.index, device != nullptr && input.sink == device->sinkIndex};
    }
    return {pulse::kInvalidIndex, false};
  };
  // Each move interrupts the stream: another is sent only once the last one has had its time.
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const auto [index, placed] = placement();
    if (placed)
      return true;
    if (index != pulse::kInvalidIndex)
      server.pactl({"move-sink-input", std::to_string(index), sink});
    if (testing::eventually([&] { return placement().second; }, {}, std::chrono::seconds(1)))
      return true;
  }
  return false;
}

// Where a steady sine in channel 0 of a recording breaks, in seconds from the recording's
// start: a sine predicts each sample from the two before it, so a gap, a skip or a click shows
// as a residual far above what resampling leaves. Only the span between the tone's first and
// last loud sample is looked at, less `settleSeconds` at its start.
std::vector<double> dropoutsIn(const std::vector<float>& recording, double frequency,
                               double settleSeconds, std::size_t endFrame) {
  const std::size_t frames = recording.size() / 2;
  auto sample = [&](std::size_t frame) { return static_cast<double>(recording[2 * frame]); };
  double peak = 0;
  for (std::size_t frame = 0; frame < frames; ++frame)
    peak = std::max(peak, std::abs(sample(frame)));
  std::size_t first = 0;
  std::size_t last = std::min(frames, endFrame);
  while (first < frames && std::abs(sample(first)) < peak / 2)
    ++first;
  while (last > first && std::abs(sample(last - 1)) < peak / 2)
    --last;
  first += static_cast<std::size_t>(settleSeconds * static_cast<double>(kRate));
  const double coefficient = 2 * std::cos(2 * M_PI * frequency / static_cast<double>(kRate));
  const double threshold = 0.05 * peak;
  // A break disturbs the prediction at both ends of a gap and for a while after a click; one
  // within this span of the last is the same break.
  constexpr std::size_t kSameBreak = kRate / 10;
  std::vector<double> breaks;
  std::size_t lastBreak = 0;
  for (std::size_t frame = first + 2; frame < last; ++frame) {
    const double residual = sample(frame) - coefficient * sample(frame - 1) + sample(frame - 2);
    if (std::abs(residual) <= threshold)
      continue;
    if (breaks.empty() || frame - lastBreak > kSameBreak)
      breaks.push_back(static_cast<double>(frame) / static_cast<double>(kRate));
    lastBreak = frame;
  }
  return breaks;
}

std::string secondsList(const std::vector<double>& times) {
  std::string text;
  for (double time : times)
    text.append(" ").append(std::to_string(static_cast<int>(time)));
  return text;
}

// The frame of a recording that was playing at a moment, counted back from when the recording
// stopped. The recorder's own lag makes every frame look later than it sounded.
std::size_t frameAt(std::size_t frames, Clock::time_point stoppedAt, Clock::time_point at) {
  const double before =
      std::chrono::duration<double>(stoppedAt - at).count() * static_cast<double>(kRate);
  return before >= static_cast<double>(frames) ? std::size_t{0}
                                               : frames - static_cast<std::size_t>(before);
}

// Milliseconds from `from` until the first 50 ms of silence in channel 0.
std::optional<double> silenceAfter(const std::vector<float>& recording, std::size_t from) {
  constexpr std::size_t kSpan = kRate / 20;
  const auto quiet = static_cast<float>(std::pow(10.0, testing::kSilentBelowDbfs / 20.0));
  std::size_t quietSince = from;
  for (std::size_t frame = from; frame < recording.size() / 2; ++frame) {
    if (std::abs(recording[2 * frame]) >= quiet)
      quietSince = frame + 1;
    else if (frame + 1 - quietSince >= kSpan)
      return static_cast<double>(quietSince - from) * 1000.0 / kRate;
  }
  return std::nullopt;
}

}  // namespace quellix::tappath
