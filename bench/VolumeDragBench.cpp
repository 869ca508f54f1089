// A 1,000-step volume drag through the mute controller on a tapped application: time per
// step and disk writes, against one atomic store of the gain measured in the same run.
#include <benchmark/benchmark.h>

#include "MedianReporter.h"

#include <atomic>
#include <bit>
#include <cstdio>
#include <map>

#include "engine/muting/MuteController.h"
#include "harness/TestSupport.h"
#include "support/ManualQueue.h"
#include "support/WallClock.h"

namespace {

using namespace quellix;

constexpr int kSteps = 1000;
std::size_t writesPerDrag = 0;

void BM_VolumeDragStep(benchmark::State& state) {
  auto sim = std::make_shared<SimAudioBackend>();
  AudioHardware hardware(sim);
  const auto logs = std::make_shared<CapturingLogSink>();
  sim->setDefaultOutputDevice(sim->addDevice({.uid = "speakers"}));
  const AudioObjectID player = sim->addProcess({.pid = 10});
  quellix::testing::TemporaryDirectory directory;
  ManualQueue queue;
  ManualWallClock clock;
  DefaultsStore defaults(directory.path() / "preferences.json", queue, logs);
  auto controller = MuteController::create(queue, hardware, defaults, clock, logs);
  AudioApp app;
  app.id = 10;
  app.name = "Player";
  app.bundleID = "org.example.Player";
  app.processObjectIDs = {player};
  controller->reconcile({app});
  controller->setVolume(0.5f, app);  // the tap exists before the drag
  int step = 0;
  std::size_t drags = 0;
  const std::size_t writesBefore = defaults.diskWrites();
  for (auto _ : state) {
    controller->setVolume(0.1f + 0.8f * static_cast<float>(step) / kSteps, app);
    if (++step == kSteps) {
      step = 0;
      ++drags;
      queue.advance(DefaultsStore::kWriteDelay);  // the drag ends; the write comes due
    }
  }
  if (drags > 0) {
    writesPerDrag = (defaults.diskWrites() - writesBefore) / drags;
  }
}

void BM_AtomicGainStore(benchmark::State& state) {
  std::atomic<std::uint32_t> gain{0};
  float value = 0.1f;
  for (auto _ : state) {
    gain.store(std::bit_cast<std::uint32_t>(value), std::memory_order_relaxed);
    value += 1e-6f;
    benchmark::ClobberMemory();
  }
}

BENCHMARK(BM_AtomicGainStore)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_VolumeDragStep)->Iterations(kSteps * 20)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double step = reporter.nanoseconds["BM_VolumeDragStep"];
  const double store = reporter.nanoseconds["BM_AtomicGainStore"];
  std::printf(
      "\nA drag step costs %.0f ns = %.0f x one atomic gain store (%.2f ns); "
      "disk writes per %d-step drag: %zu\n",
      step, store > 0 ? step / store : 0.0, store, kSteps, writesPerDrag);
  benchmark::Shutdown();
  return 0;
}
