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

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

#include "TapPathMeasures.h"

using namespace quellix;
using namespace quellix::tappath;

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
