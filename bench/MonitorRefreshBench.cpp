// One refresh of the audio process monitor with 20 audio processes, warm caches, on a fake
// /proc of 100, 400 and 1000 processes; against one readProcessList() in the same run.
#include <benchmark/benchmark.h>

#include "MedianReporter.h"

#include <cstdio>
#include <map>

#include "audio/CoreAudioSupport.h"
#include "audio/sim/SimAudioBackend.h"
#include "engine/monitor/AudioProcessMonitor.h"
#include "harness/FakeSystem.h"
#include "support/ManualQueue.h"

namespace {

using namespace quellix;

constexpr int kAudioProcesses = 20;

// Applications with a few helpers each, some of which play; the rest idle system processes.
struct World {
  explicit World(int processes) {
    for (int i = 0; i < 10; ++i) {
      system.addApplication("org.example.App" + std::to_string(i), "App " + std::to_string(i),
                            "app" + std::to_string(i));
    }
    for (int pid = 2; pid < processes + 2; ++pid) {
      const bool application = pid % 40 == 2;
      system.addProcess({.pid = pid,
                         .parent = application ? 1 : pid - (pid - 2) % 40,
                         .executable = application ? "app" + std::to_string(pid / 40 % 10)
                                                   : "helper" + std::to_string(pid)});
    }
    for (int i = 0; i < kAudioProcesses; ++i) {
      sim->addProcess({.pid = 3 + (i * (processes / kAudioProcesses))});
    }
    monitor = AudioProcessMonitor::create(queue, hardware,
                                          std::make_shared<Workspace>(system.roots()), logs);
    monitor->refresh();  // warm
  }
  quellix::testing::FakeSystem system;
  std::shared_ptr<SimAudioBackend> sim = std::make_shared<SimAudioBackend>();
  AudioHardware hardware{sim};
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  ManualQueue queue;
  std::shared_ptr<AudioProcessMonitor> monitor;
};

void BM_Refresh(benchmark::State& state) {
  World world(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    world.monitor->refresh();
  }
  state.counters["apps"] = static_cast<double>(world.monitor->apps().get().size());
}

void BM_ReadProcessList(benchmark::State& state) {
  World world(400);
  for (auto _ : state) {
    benchmark::DoNotOptimize(readProcessList(world.hardware));
  }
}

BENCHMARK(BM_ReadProcessList)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Refresh)
    ->Arg(100)
    ->Arg(400)
    ->Arg(1000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double list = reporter.nanoseconds["BM_ReadProcessList"];
  std::printf("\nRefresh with %d audio processes, warm caches:\n", kAudioProcesses);
  for (const char* size : {"100", "400", "1000"}) {
    const double refresh = reporter.nanoseconds[std::string("BM_Refresh/") + size];
    std::printf("  %5s processes: %7.1f us = %6.1f x readProcessList()\n", size, refresh / 1000,
                list > 0 ? refresh / list : 0.0);
  }
  benchmark::Shutdown();
  return 0;
}
