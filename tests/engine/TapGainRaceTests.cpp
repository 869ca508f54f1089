#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/muting/ProcessMuteTap.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

// The main thread stores gains while the IO thread renders: the one shared word must be all
// they share, so the thread sanitizer sees no race.
class TapGainRaceTest : public testing::SimTest {};

TEST_F(TapGainRaceTest, GainStoresRaceFreeWithRendering) {
  const AudioObjectID output = addDefaultOutput();
  const AudioObjectID player = sim->addProcess({.pid = 1, .level = 1.0f});
  ProcessMuteTap tap(hardware, "Player", {player}, 0.0f, logs);

  std::atomic<bool> stop{false};
  std::atomic<int> cycles{0};
  float lastHeard = 0;
  std::thread io([&] {
    while (!stop.load()) {
      lastHeard = sim->render(256)[output][0];
      cycles.fetch_add(1);
    }
  });
  for (int i = 0; i < 20000 || cycles.load() < 50; ++i) {
    tap.setGain(static_cast<float>(i % 11) / 10.0f);
  }
  tap.setGain(0.5f);
  const int seen = cycles.load();
  while (cycles.load() < seen + 2) {
    std::this_thread::yield();
  }
  stop = true;
  io.join();
  EXPECT_FLOAT_EQ(lastHeard, 0.5f);
  tap.invalidate();
}

}  // namespace
}  // namespace quellix
