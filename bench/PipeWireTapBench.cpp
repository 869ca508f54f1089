// The latency the native PipeWire backend's tap adds to a real client at its default
// buffering, against pw-loopback in the same graph, measured the same way in the same run:
// paplay plays a 1 ms click every half second, one recording of the output spans the direct
// path, the tap at gain 0.5, the direct path again, pw-loopback, and the direct path last; each
// path shifts the clicks by its latency.
//
//   pipewire_tap_bench
#include <cstdio>
#include <sstream>
#include <thread>

#include "TapPathMeasures.h"
#include "audio/CoreAudioSupport.h"
#include "audio/pipewire/PipeWireBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/ChildProcess.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

namespace {

using namespace quellix;
using namespace quellix::tappath;

std::vector<AudioObjectID> playerObjectsOf(const PipeWireBackend& backend, pid_t pid) {
  std::vector<AudioObjectID> objects;
  testing::eventually([&] {
    objects.clear();
    for (const auto& process : backend.snapshot()->processes) {
      if (process.pid == pid) {
        objects.push_back(process.id);
      }
    }
    return !objects.empty();
  });
  return objects;
}

// Moves a stream with pactl until the server reports it on `sink`.
bool moveStreamTo(const testing::SoundServer& server, const std::string& index,
                  const std::string& sink) {
  return testing::eventually([&] {
    server.pactl({"move-sink-input", index, sink});
    for (const auto& input : server.sinkInputs()) {
      if (input.index == index) {
        return input.sink == sink;
      }
    }
    return false;
  });
}

}  // namespace

int main() {
  const auto logs = std::make_shared<CapturingLogSink>();
  testing::SoundServer server(testing::SoundServer::Kind::pipeWire);
  auto backend = PipeWireBackend::create({}, logs);
  AudioHardware hardware(backend);

  const auto clicks = server.runtimeDir() / "clicks.wav";
  testing::runProgram(
      {"sox",   "-n",   "-r",   "48000", "-c",  "2",   "-b", "16",    clicks.string(), "synth",
       "0.001", "sine", "1000", "vol",   "0.8", "pad", "0",  "0.499", "repeat",        "239"});
  testing::ChildProcess clicker(
      {"paplay", "--property=application.id=org.example.Clicker", clicks.string()},
      {.outputFile = (server.runtimeDir() / "paplay.log").string()});
  const auto clickerObjects = playerObjectsOf(*backend, clicker.pid());
  std::string clickerStream;
  testing::eventually([&] {
    const auto inputs = server.sinkInputs();
    clickerStream = inputs.size() == 1 ? inputs[0].index : "";
    return !clickerStream.empty();
  });
  // pw-loopback's capture side is a sink of its own; its playback goes to the output.
  testing::ChildProcess loopback(
      {"pw-loopback", "--capture-props=media.class=Audio/Sink node.name=bench.loopback",
       "--playback-props=target.object=out1"},
      {.outputFile = (server.runtimeDir() / "loopback.log").string()});
  testing::eventually([&] {
    return server.pactl({"list", "short", "sinks"}).find("bench.loopback") != std::string::npos;
  });

  testing::MonitorRecording recording(server.runtimeDir() / "clicks.raw", "out1.monitor");
  constexpr auto kSegment = std::chrono::seconds(8);
  BurstTimeline timeline;
  timeline.mark("direct");
  std::this_thread::sleep_for(kSegment);
  timeline.mark("tap");
  {
    ProcessMuteTap tap(hardware, "Clicker", clickerObjects, 0.5f, logs);
    std::this_thread::sleep_for(kSegment);
    timeline.mark("direct again");
    tap.invalidate();
  }
  std::this_thread::sleep_for(kSegment);
  const bool moved = moveStreamTo(server, clickerStream, "bench.loopback");
  timeline.mark("loopback");
  std::this_thread::sleep_for(kSegment);
  const bool movedBack = moveStreamTo(server, clickerStream, "out1");
  timeline.mark("direct last");
  std::this_thread::sleep_for(kSegment);
  timeline.finish(recording.stopSamples(), Clock::now());

  const auto direct = timeline.shiftMs("direct");
  const auto directAgain = timeline.shiftMs("direct again");
  const auto directLast = timeline.shiftMs("direct last");
  const auto tapped = timeline.shiftMs("tap");
  const auto looped = timeline.shiftMs("loopback");
  std::printf("server: PipeWire, native backend; paplay at its default buffering\n");
  if (!(direct && directAgain && directLast && tapped && looped && moved && movedBack)) {
    std::printf("  added latency: not measured (no clicks on some path, or a move failed)\n");
    return 1;
  }
  const double tapAdded = *tapped - (*direct + *directAgain) / 2;
  const double loopbackAdded = *looped - (*directAgain + *directLast) / 2;
  std::printf(
      "  added latency of paplay's clicks: tap %.1f ms, pw-loopback %.1f ms (difference %.1f ms); "
      "direct path moved by %.1f and %.1f ms\n",
      tapAdded, loopbackAdded, tapAdded - loopbackAdded, *directAgain - *direct,
      *directLast - *directAgain);
  return 0;
}
