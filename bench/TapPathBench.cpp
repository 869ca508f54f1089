// The tap path on a private sound server: time from tap construction to silence, the IO
// thread's CPU per tap, dropouts and latency growth over a long attenuated run, moves that had
// to be repeated, and the latency of the tap path against the server's own loopback module
// set to 20 ms, both read from the server in the same run.
//
//   tap_path_bench [pulseaudio|pipewire] [seconds]
#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>

#include "SoundServer.h"
#include "TestPlayerProcess.h"
#include "coreaudio/CoreAudioSupport.h"
#include "muting/ProcessMuteTap.h"
#include "platform/hal/pulse/PulseBackend.h"
#include "support/Logger.h"

namespace {

using namespace quellix;
using Clock = std::chrono::steady_clock;

// CPU seconds used so far by this process's threads with the given name.
double threadCPUSeconds(const std::string& name) {
  double seconds = 0;
  const long ticks = ::sysconf(_SC_CLK_TCK);
  DIR* tasks = ::opendir("/proc/self/task");
  while (dirent* entry = tasks != nullptr ? ::readdir(tasks) : nullptr) {
    const std::string task = std::string("/proc/self/task/") + entry->d_name;
    std::string comm;
    std::getline(std::ifstream(task + "/comm"), comm);
    if (comm != name) {
      continue;
    }
    std::string stat;
    std::getline(std::ifstream(task + "/stat"), stat);
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
    seconds += static_cast<double>(user + system) / static_cast<double>(ticks);
  }
  if (tasks != nullptr) {
    ::closedir(tasks);
  }
  return seconds;
}

// The buffer plus device latency, in ms, of the streams whose listing contains `marker`.
double streamLatencyMs(const testing::SoundServer& server, const std::string& kind,
                       const std::string& marker) {
  std::istringstream listing(server.pactl({"list", kind}));
  std::string line;
  std::string block;
  double total = 0;
  auto finish = [&] {
    if (block.find(marker) == std::string::npos) {
      return;
    }
    std::istringstream lines(block);
    for (std::string entry; std::getline(lines, entry);) {
      const auto at = entry.find("Latency: ");
      if (at != std::string::npos && entry.find("usec") != std::string::npos) {
        total += std::stod(entry.substr(at + 9)) / 1000.0;
      }
    }
  };
  while (std::getline(listing, line)) {
    if (!line.empty() && line[0] != '\t' && line[0] != ' ') {
      finish();
      block.clear();
    }
    block += line + "\n";
  }
  finish();
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  const bool pipeWire = argc > 1 && std::string(argv[1]) == "pipewire";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
  Logger::installSink(std::make_shared<CapturingLogSink>());
  testing::SoundServer server(pipeWire ? testing::SoundServer::Kind::pipeWire
                                       : testing::SoundServer::Kind::pulseAudio);
  testing::TestPlayerProcess player({.appID = "org.example.Player"});
  auto backend = PulseBackend::create({});
  installAudioBackend(backend);
  std::vector<AudioObjectID> objects;
  testing::eventually([&] {
    objects.clear();
    for (const auto& process : backend->snapshot()->processes) {
      if (process.pid == player.pid())
        objects.push_back(process.id);
    }
    return !objects.empty();
  });

  const auto constructed = Clock::now();
  ProcessMuteTap tap("Player", objects, 0.0f);
  const double silentAfterMs =
      std::chrono::duration<double, std::milli>(Clock::now() - constructed).count();
  tap.setGain(0.5f);  // a long attenuated session

  std::vector<double> latencies;
  const double cpuBefore = threadCPUSeconds("quellix-io");
  for (int second = 0; second < seconds; ++second) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (const auto statistics = backend->ioStatistics(tap.aggregateID())) {
      latencies.push_back(statistics->playbackLatencyMs);
    }
  }
  const double cpuPercent = 100.0 * (threadCPUSeconds("quellix-io") - cpuBefore) / seconds;
  const auto statistics =
      backend->ioStatistics(tap.aggregateID()).value_or(PulseIOPath::Statistics{});
  const std::size_t quarter = std::max<std::size_t>(latencies.size() / 4, 1);
  auto mean = [](auto begin, auto end) {
    return begin == end ? 0.0 : std::accumulate(begin, end, 0.0) / static_cast<double>(end - begin);
  };
  const double firstLatency = mean(latencies.begin(), latencies.begin() + quarter);
  const double lastLatency = mean(latencies.end() - quarter, latencies.end());

  // Muted, the tap's usual state.
  constexpr int kMutedSeconds = 10;
  tap.setGain(0.0f);
  const double mutedCPUBefore = threadCPUSeconds("quellix-io");
  std::this_thread::sleep_for(std::chrono::seconds(kMutedSeconds));
  const double mutedCPUPercent =
      100.0 * (threadCPUSeconds("quellix-io") - mutedCPUBefore) / kMutedSeconds;

  const double tapPathMs = streamLatencyMs(server, "source-outputs", "Quellix tap") +
                           streamLatencyMs(server, "sink-inputs", "Quellix playback");
  server.pactl(
      {"load-module", "module-loopback", "source=out2.monitor", "sink=out1", "latency_msec=20"});
  std::this_thread::sleep_for(std::chrono::seconds(3));
  const double loopbackMs = streamLatencyMs(server, "source-outputs", "module-loopback") +
                            streamLatencyMs(server, "sink-inputs", "module-loopback");

  std::printf("server: %s, %d s at gain 0.5\n", pipeWire ? "PipeWire" : "PulseAudio", seconds);
  std::printf("  silent after construction started: %.1f ms\n", silentAfterMs);
  std::printf("  IO thread CPU: %.2f %% of one core (muted: %.2f %%)\n", cpuPercent,
              mutedCPUPercent);
  std::printf("  underruns: %llu, dropped frames: %llu, IO cycles: %llu\n",
              static_cast<unsigned long long>(statistics.underruns),
              static_cast<unsigned long long>(statistics.droppedFrames),
              static_cast<unsigned long long>(statistics.cycles));
  std::printf(
      "  queued playback: first quarter %.1f ms, last quarter %.1f ms, held %.0f ms, rate x%.4f\n",
      firstLatency, lastLatency, statistics.heldLatencyMs, statistics.rateCorrection);
  std::printf(
      "  stream latency, tap path %.1f ms against loopback at 20 ms: %.1f ms (ratio %.2f)\n",
      tapPathMs, loopbackMs, loopbackMs > 0 ? tapPathMs / loopbackMs : 0.0);
  std::printf("  repeated moves: %llu\n",
              static_cast<unsigned long long>(backend->repeatedMoves()));
  tap.invalidate();
  installAudioBackend(nullptr);
  return 0;
}
