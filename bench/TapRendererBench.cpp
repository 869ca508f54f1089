// The tap's IO block at 512 frames of stereo float: copy path, multiply path and 2→4 remap,
// against memcpy of the same bytes in the same run. Prints median throughput ratios and the heap
// allocations per call.
#include <benchmark/benchmark.h>

#include "MedianReporter.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "engine/muting/TapRenderer.h"

namespace {

constexpr std::size_t kFrames = 512;
constexpr UInt32 kChannels = 2;

struct Buffers {
  explicit Buffers(UInt32 outChannels)
      : input(kFrames * kChannels, 0.25f), output(kFrames * outChannels, 0.0f) {
    inBuffer = {kChannels, static_cast<UInt32>(input.size() * sizeof(float)), input.data()};
    outBuffer = {outChannels, static_cast<UInt32>(output.size() * sizeof(float)), output.data()};
  }
  std::vector<float> input;
  std::vector<float> output;
  AudioBuffer inBuffer{};
  AudioBuffer outBuffer{};
  AudioBufferList inList{1, &inBuffer};
  AudioBufferList outList{1, &outBuffer};
};

std::map<std::string, double> allocationsPerCall;

void runBlock(benchmark::State& state, float gain, UInt32 outChannels, const char* name) {
  Buffers buffers(outChannels);
  auto renderer = quellix::TapRenderer::create(gain);
  const AudioDeviceIOBlock block = renderer->makeIOBlock();
  const std::size_t before = bench::allocations.load();
  for (auto _ : state) {
    block(nullptr, &buffers.inList, nullptr, &buffers.outList, nullptr);
    benchmark::DoNotOptimize(buffers.output.data());
    benchmark::ClobberMemory();
  }
  allocationsPerCall[name] = static_cast<double>(bench::allocations.load() - before) /
                             static_cast<double>(state.iterations());
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * kFrames * kChannels * sizeof(float)));
}

void BM_Memcpy(benchmark::State& state) {
  Buffers buffers(kChannels);
  for (auto _ : state) {
    std::memcpy(buffers.output.data(), buffers.input.data(), buffers.input.size() * sizeof(float));
    benchmark::DoNotOptimize(buffers.output.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * kFrames * kChannels * sizeof(float)));
}
void BM_CopyPath(benchmark::State& state) {
  runBlock(state, 1.0f, 2, "copy");
}
void BM_MultiplyPath(benchmark::State& state) {
  runBlock(state, 0.5f, 2, "multiply");
}
void BM_Remap2To4(benchmark::State& state) {
  runBlock(state, 0.5f, 4, "remap");
}

// Interleaved repetitions and their medians keep a noisy machine from deciding the ratios.
constexpr int kRepetitions = 9;
BENCHMARK(BM_Memcpy)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_CopyPath)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_MultiplyPath)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_Remap2To4)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench::MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& times = reporter.nanoseconds;
  const auto baseline = times.find("BM_Memcpy");
  if (baseline == times.end()) {
    return 0;
  }
  std::printf("\nThroughput as a share of memcpy's (same run):\n");
  for (const auto& [name, key] :
       std::vector<std::pair<const char*, const char*>>{{"copy path", "BM_CopyPath"},
                                                        {"multiply path", "BM_MultiplyPath"},
                                                        {"2->4 remap", "BM_Remap2To4"}}) {
    const auto found = times.find(key);
    if (found != times.end()) {
      std::printf("  %-14s %.2f\n", name, baseline->second / found->second);
    }
  }
  std::printf("Heap allocations per call:\n");
  for (const auto& [name, count] : allocationsPerCall) {
    std::printf("  %-14s %.0f\n", name.c_str(), count);
  }
  benchmark::Shutdown();
  return 0;
}
