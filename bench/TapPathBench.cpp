// The tap path on a private sound server, with paplay at its default buffering as the player:
// time from tap construction to silence, the IO thread's CPU per tap against the player's,
// breaks in the tone heard at the output over a long attenuated run against those of the same
// tone played directly for as long, latency growth, moves that had to be repeated, and the
// latency clicks gain through the tap path against what they gain through the server's own
// loopback module set to 20 ms, both measured at the output in the same run, with the CPU
// each path adds. Muted afterwards, the IO thread's CPU and wake-ups, and the latency once
// turned up again.
//
//   tap_path_bench [pulseaudio|pipewire] [seconds] [muted seconds]
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

#include "ClickTimeline.h"
#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

namespace {

using namespace quellix;
using namespace quellix::bench;

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
                               double settleSeconds, std::size_t endFrame = SIZE_MAX) {
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

}  // namespace

int main(int argc, char** argv) {
  const bool pipeWire = argc > 1 && std::string(argv[1]) == "pipewire";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 60;
  const auto logs = std::make_shared<CapturingLogSink>();
  testing::SoundServer server(pipeWire ? testing::SoundServer::Kind::pipeWire
                                       : testing::SoundServer::Kind::pulseAudio);
  auto backend = PulseBackend::create({}, logs);
  AudioHardware hardware(backend);

  // A long attenuated session of a steady tone, then the tap's usual state, muted.
  const int mutedSeconds = argc > 3 ? std::atoi(argv[3]) : 10;
  const auto tone = server.runtimeDir() / "tone.wav";
  testing::runProgram({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", tone.string(), "synth",
                       std::to_string(2 * seconds + mutedSeconds + 10), "sine", "440", "vol",
                       "0.5"});
  auto player = std::make_unique<testing::ChildProcess>(
      std::vector<std::string>{"paplay", "--property=application.id=org.example.Player",
                               tone.string()},
      testing::ChildProcess::Options{.outputFile = (server.runtimeDir() / "player.log").string()});
  // The same tone played directly first: the breaks this machine causes on its own.
  constexpr double kRecorderStart = 1.5;
  std::optional<testing::MonitorRecording> directRecording(
      std::in_place, server.runtimeDir() / "direct.raw", "out1.monitor");
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds + kRecorderStart));
  // The recording goes on while the tap is made, muted: the tone's end in it is the moment the
  // output fell silent.
  const auto constructed = Clock::now();
  auto tap = std::make_unique<ProcessMuteTap>(
      hardware, "Player", processObjectsOf(*backend, player->pid()), 0.0f, logs);
  const double constructionMs =
      std::chrono::duration<double, std::milli>(Clock::now() - constructed).count();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const auto directStopped = Clock::now();
  const auto directSamples = directRecording->stopSamples();
  directRecording.reset();
  const std::size_t constructionFrame =
      frameAt(directSamples.size() / 2, directStopped, constructed);
  const auto directBreaks = dropoutsIn(directSamples, 440.0, 0.5, constructionFrame);
  const auto silentAfterMs = silenceAfter(directSamples, constructionFrame);
  tap->setGain(0.5f);

  std::vector<double> latencies;
  std::string underrunSeconds;
  std::uint64_t underruns = 0;
  testing::MonitorRecording tapRecording(server.runtimeDir() / "tapped.raw", "out1.monitor");
  // The player's CPU in the same seconds is the baseline of what this machine charges for a
  // client of the server.
  const std::string playerStat = "/proc/" + std::to_string(player->pid()) + "/stat";
  const double playerCPUBefore = cpuSecondsOf(playerStat);
  const double cpuBefore = threadCPUSeconds("quellix-io");
  for (int second = 1; second <= seconds; ++second) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    if (const auto statistics = backend->ioStatistics(tap->aggregateID())) {
      latencies.push_back(statistics->playbackLatencyMs);
      for (; underruns < statistics->underruns; ++underruns)
        underrunSeconds.append(" ").append(std::to_string(second));
    }
  }
  const double cpuPercent = 100.0 * (threadCPUSeconds("quellix-io") - cpuBefore) / seconds;
  const double playerCPUPercent = 100.0 * (cpuSecondsOf(playerStat) - playerCPUBefore) / seconds;
  const auto tapBreaks = dropoutsIn(tapRecording.stopSamples(), 440.0, 0.5);
  const auto statistics =
      backend->ioStatistics(tap->aggregateID()).value_or(PulseIOPath::Statistics{});
  const std::size_t span = std::clamp<std::size_t>(latencies.size() / 2, 1, 10);
  auto mean = [](auto begin, auto end) {
    return begin == end ? 0.0 : std::accumulate(begin, end, 0.0) / static_cast<double>(end - begin);
  };
  const double firstLatency = mean(latencies.begin(), latencies.begin() + span);
  const double lastLatency = mean(latencies.end() - span, latencies.end());

  tap->setGain(0.0f);
  // The first second muted is not the muted state yet.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const ThreadUse mutedBefore = threadUse("quellix-io");
  std::this_thread::sleep_for(std::chrono::seconds(mutedSeconds));
  const ThreadUse mutedAfter = threadUse("quellix-io");
  const double mutedCPUPercent =
      100.0 * (mutedAfter.cpuSeconds - mutedBefore.cpuSeconds) / mutedSeconds;
  const double mutedWakeUps =
      static_cast<double>(mutedAfter.wakeUps - mutedBefore.wakeUps) / mutedSeconds;
  // Turned up again: the latency it plays at from then on.
  tap->setGain(0.5f);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto unmuted = backend->ioStatistics(tap->aggregateID());
  tap->invalidate();
  tap.reset();
  player.reset();

  // A real client at its default buffering, through each path in turn, one recording: paplay
  // playing a click every half second.
  const auto clicks = server.runtimeDir() / "clicks.wav";
  testing::runProgram(
      {"sox",   "-n",   "-r",   "48000", "-c",  "2",   "-b", "16",    clicks.string(), "synth",
       "0.001", "sine", "1000", "vol",   "0.8", "pad", "0",  "0.499", "repeat",        "239"});
  testing::ChildProcess clicker(
      {"paplay", "--property=application.id=org.example.Clicker", clicks.string()},
      {.outputFile = (server.runtimeDir() / "paplay.log").string()});
  const auto clickerObjects = processObjectsOf(*backend, clicker.pid());
  testing::MonitorRecording recording(server.runtimeDir() / "clicks.raw", "out1.monitor");
  constexpr auto kSegment = std::chrono::seconds(8);
  BurstTimeline timeline;
  timeline.mark("direct");
  std::this_thread::sleep_for(kSegment);
  std::string tapSinkLatency;
  std::optional<PulseIOPath::Statistics> clickStatistics;
  timeline.mark("tap");
  {
    ProcessMuteTap clickTap(hardware, "Clicker", clickerObjects, 0.5f, logs);
    std::this_thread::sleep_for(kSegment - std::chrono::seconds(1));
    tapSinkLatency = sinkLatencyLine(server, "quellix.tap.");
    clickStatistics = backend->ioStatistics(clickTap.aggregateID());
    std::this_thread::sleep_for(std::chrono::seconds(1));
    // Before the tap ends, while its IO thread is still there to be counted.
    timeline.mark("direct again");
    clickTap.invalidate();
  }
  std::this_thread::sleep_for(kSegment - std::chrono::seconds(1));
  // The loopback settles on its latency before the stream moves there.
  server.pactl(
      {"load-module", "module-loopback", "source=out2.monitor", "sink=out1", "latency_msec=20"});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const bool moved = moveStream(server, *backend, clicker.pid(), "out2");
  timeline.mark("loopback");
  std::this_thread::sleep_for(kSegment);
  const bool movedBack = moveStream(server, *backend, clicker.pid(), "out1");
  timeline.mark("direct last");
  std::this_thread::sleep_for(kSegment);
  const auto stoppedAt = Clock::now();
  timeline.finish(recording.stopSamples(), stoppedAt);

  std::printf("server: %s, %d s at gain 0.5\n", pipeWire ? "PipeWire" : "PulseAudio", seconds);
  std::printf(
      "  silent at the output %s ms after construction started (with the recorder's lag); "
      "construction took %.1f ms\n",
      silentAfterMs ? std::to_string(static_cast<int>(std::lround(*silentAfterMs))).c_str()
                    : "never",
      constructionMs);
  std::printf(
      "  IO thread CPU: %.2f %% of one core (muted: %.2f %%, %.0f wake-ups/s); the player, same "
      "seconds: %.2f %% (ratio %.2f)\n",
      cpuPercent, mutedCPUPercent, mutedWakeUps, playerCPUPercent,
      playerCPUPercent > 0 ? cpuPercent / playerCPUPercent : 0.0);
  std::printf("  underruns: %llu (in second:%s), dropped frames: %llu, IO cycles: %llu\n",
              static_cast<unsigned long long>(statistics.underruns), underrunSeconds.c_str(),
              static_cast<unsigned long long>(statistics.droppedFrames),
              static_cast<unsigned long long>(statistics.cycles));
  std::printf(
      "  breaks in the tone heard at the output, %d s each: tapped %zu (at s%s), direct %zu (at "
      "s%s)\n",
      seconds, tapBreaks.size(), secondsList(tapBreaks).c_str(), directBreaks.size(),
      secondsList(directBreaks).c_str());
  std::printf(
      "  queued playback: first %zu s %.1f ms, last %zu s %.1f ms, held %.0f ms, rate x%.4f\n",
      span, firstLatency, span, lastLatency, statistics.heldLatencyMs, statistics.rateCorrection);
  if (unmuted) {
    std::printf(
        "  queued playback 1 s after turning a muted tap up: %.1f ms (held %.0f ms); underruns "
        "while muted and since: %llu\n",
        unmuted->playbackLatencyMs, unmuted->heldLatencyMs,
        static_cast<unsigned long long>(unmuted->underruns - statistics.underruns));
  }
  const auto direct = timeline.shiftMs("direct");
  const auto directAgain = timeline.shiftMs("direct again");
  const auto directLast = timeline.shiftMs("direct last");
  const auto tapped = timeline.shiftMs("tap");
  const auto loopback = timeline.shiftMs("loopback");
  std::printf("  tap sink while clicks play through it: latency %s", tapSinkLatency.c_str());
  if (clickStatistics) {
    std::printf("; queued playback %.1f ms, held %.0f ms, underruns %llu",
                clickStatistics->playbackLatencyMs, clickStatistics->heldLatencyMs,
                static_cast<unsigned long long>(clickStatistics->underruns));
  }
  std::printf("\n");
  // What the server and the IO thread used beyond the first direct segment, the only one with
  // neither a tap nor a loopback.
  const double directCPU = timeline.cpuPercent("direct");
  std::printf(
      "  CPU added, server and IO thread, %% of one core: tap path %.2f, loopback %.2f "
      "(direct path alone %.2f)\n",
      timeline.cpuPercent("tap") - directCPU, timeline.cpuPercent("loopback") - directCPU,
      directCPU);
  if (direct && directAgain && directLast && tapped && loopback && moved && movedBack) {
    const double tapAdded = *tapped - (*direct + *directAgain) / 2;
    const double loopbackAdded = *loopback - (*directAgain + *directLast) / 2;
    // A player whose own latency changed between two visits of the direct path (a move may
    // leave more queued) makes the paths beside that change incomparable.
    constexpr double kSteadyMs = 5.0;
    const bool steady = std::abs(*directAgain - *direct) <= kSteadyMs &&
                        std::abs(*directLast - *directAgain) <= kSteadyMs;
    std::printf(
        "  added latency of paplay's clicks: tap path %.1f ms, loopback at 20 ms %.1f ms "
        "(ratio %.2f); direct path moved by %.1f and %.1f ms%s\n",
        tapAdded, loopbackAdded, loopbackAdded > 0 ? tapAdded / loopbackAdded : 0.0,
        *directAgain - *direct, *directLast - *directAgain,
        steady ? "" : " (unsteady: not comparable)");
  } else {
    std::printf(
        "  added latency of paplay's clicks: not measured (no clicks on some path, or a move "
        "failed)\n");
  }
  std::printf("  repeated moves: %llu\n",
              static_cast<unsigned long long>(backend->repeatedMoves()));
  return 0;
}
