#include <gtest/gtest.h>

#include <deque>

#include "engine/muting/MuteController.h"
#include "harness/SoakSequence.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

constexpr std::size_t kSteps = 10000;
// A player starts or stops every this many steps.
constexpr std::size_t kChurnEvery = 3;
constexpr std::size_t kPlayers = 3;

class MuteControllerSoakTest : public testing::SimTest {};

// Ten thousand panel operations while players come and go: every tap built is destroyed,
// nothing is logged as an error, and (under the address sanitizer) nothing leaks.
TEST_F(MuteControllerSoakTest, TenThousandOperationsLeaveNothingBehind) {
  addDefaultOutput();
  testing::TemporaryDirectory directory;
  ManualWallClock clock;
  DefaultsStore defaults(directory.path() / "preferences.json", queue, logs);
  auto controller = MuteController::create(queue, hardware, defaults, clock, logs);

  struct Player {
    AudioObjectID object;
    AudioApp app;
  };
  std::deque<Player> players;
  pid_t nextPID = 100;
  auto start = [&](std::size_t slot) {
    const pid_t pid = nextPID++;
    AudioApp app;
    app.id = pid;
    app.name = "Player " + std::to_string(slot);
    // One of the three keeps its mute across restarts; the others live for one run.
    if (slot == 0) {
      app.bundleID = "org.example.Player";
    }
    app.processObjectIDs = {sim->addProcess({.pid = pid})};
    players.push_back({app.processObjectIDs.front(), app});
  };
  auto listed = [&] {
    std::vector<AudioApp> apps;
    for (const auto& player : players) {
      apps.push_back(player.app);
    }
    return apps;
  };
  for (std::size_t slot = 0; slot < kPlayers; ++slot) {
    start(slot);
  }
  controller->reconcile(listed());

  std::size_t mostTaps = 0;
  const auto steps = testing::soakSequence(kSteps);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (i % kChurnEvery == 0) {
      // The oldest player stops, or a new one starts in its place.
      if (players.size() == kPlayers) {
        sim->removeProcess(players.front().object);
        players.pop_front();
      } else {
        start(i % kPlayers);
      }
      controller->reconcile(listed());
    }
    testing::apply(steps[i], *controller, listed());
    queue.drain();
    mostTaps = std::max(mostTaps, sim->taps().size());
    ASSERT_EQ(sim->taps().size(), controller->tapCount()) << "step " << i;
    ASSERT_EQ(sim->aggregates().size(), controller->tapCount()) << "step " << i;
  }
  EXPECT_GT(mostTaps, 1u);

  testing::releaseAll(*controller, listed());
  queue.drain();
  EXPECT_EQ(controller->tapCount(), 0u);
  EXPECT_TRUE(sim->taps().empty());
  EXPECT_TRUE(sim->aggregates().empty());
  for (const auto& entry : logs->entries()) {
    EXPECT_NE(entry.level, LogLevel::error) << entry.message;
  }
}

}  // namespace
}  // namespace quellix
