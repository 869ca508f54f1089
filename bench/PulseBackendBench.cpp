// Reading the four per-process properties of 200 process objects through the hardware layer
// (answered from the backend's model) against one round trip to the sound server, measured in
// the same run against a private PulseAudio.
#include <benchmark/benchmark.h>

#include <pulse/pulseaudio.h>
#include "MedianReporter.h"

#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

namespace {

using namespace quellix;

constexpr int kProcesses = 200;

std::vector<AudioObjectID> processes;

void BM_ReadFourPropertiesOf200Processes(benchmark::State& state, AudioHardware* hardware) {
  for (auto _ : state) {
    for (const AudioObjectID object : processes) {
      benchmark::DoNotOptimize(
          read<SInt32>(*hardware, object, globalAddress(kAudioProcessPropertyPID), 0));
      benchmark::DoNotOptimize(readProcessBundleID(*hardware, object));
      benchmark::DoNotOptimize(
          read<UInt32>(*hardware, object, globalAddress(kAudioProcessPropertyIsRunning), 0));
      benchmark::DoNotOptimize(read<std::int64_t>(
          *hardware, object, globalAddress(kAudioProcessPropertyIsRunningOutput), 0));
    }
  }
}

// One request and its reply on a connection of its own.
void BM_ServerRoundTrip(benchmark::State& state) {
  pa_threaded_mainloop* mainloop = pa_threaded_mainloop_new();
  pa_context* context = pa_context_new(pa_threaded_mainloop_get_api(mainloop), "round trip");
  pa_context_set_state_callback(
      context,
      [](pa_context*, void* loop) {
        pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
      },
      mainloop);
  pa_threaded_mainloop_lock(mainloop);
  pa_threaded_mainloop_start(mainloop);
  pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
  while (pa_context_get_state(context) != PA_CONTEXT_READY) {
    pa_threaded_mainloop_wait(mainloop);
  }
  for (auto _ : state) {
    pa_operation* operation = pa_context_get_server_info(
        context,
        [](pa_context*, const pa_server_info*, void* loop) {
          pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
        },
        mainloop);
    while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
      pa_threaded_mainloop_wait(mainloop);
    }
    pa_operation_unref(operation);
  }
  pa_context_disconnect(context);
  pa_context_unref(context);
  pa_threaded_mainloop_unlock(mainloop);
  pa_threaded_mainloop_stop(mainloop);
  pa_threaded_mainloop_free(mainloop);
}

BENCHMARK(BM_ServerRoundTrip)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  testing::SoundServer server(testing::SoundServer::Kind::pulseAudio);
  // One process object each: a client playing silence at a long latency costs the server little.
  std::vector<std::unique_ptr<testing::ChildProcess>> players;
  for (int i = 0; i < kProcesses; ++i) {
    players.push_back(std::make_unique<testing::ChildProcess>(
        std::vector<std::string>{"pacat", "--latency-msec=1000", "/dev/zero"},
        testing::ChildProcess::Options{}));
  }
  auto backend = PulseBackend::create({}, std::make_shared<CapturingLogSink>());
  AudioHardware hardware(backend);
  const bool listed =
      testing::eventually([&] { return backend->snapshot()->processes.size() >= kProcesses; }, {},
                          std::chrono::seconds(30));
  processes = readProcessList(hardware);
  std::printf("%zu process objects on the private server\n", processes.size());
  if (!listed) {
    return 1;
  }
  benchmark::RegisterBenchmark("BM_ReadFourPropertiesOf200Processes",
                               BM_ReadFourPropertiesOf200Processes, &hardware)
      ->Repetitions(5)
      ->ReportAggregatesOnly(true);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double reads = reporter.nanoseconds["BM_ReadFourPropertiesOf200Processes"];
  const double roundTrip = reporter.nanoseconds["BM_ServerRoundTrip"];
  if (roundTrip > 0) {
    std::printf(
        "\nReading 4 properties of %d processes costs %.2f server round trips "
        "(%.1f us against %.1f us)\n",
        kProcesses, reads / roundTrip, reads / 1000, roundTrip / 1000);
  }
  benchmark::Shutdown();
  return 0;
}
