#include "audio/pulse/TapGuard.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/ServerTest.h"
#include "harness/TestPlayerProcess.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

using std::chrono::milliseconds;
using testing::ChildProcess;
using testing::TestPlayerProcess;

// Three tones at this amplitude sum to less than full scale: a 16-bit output does not clip.
constexpr double kAmplitude = 0.3;
constexpr double kToneLevel = -13.47;
// Three tones of the same level at different pitches: their powers add.
constexpr double kThreeTonesDb = 4.77;
constexpr auto kGuardDeadline = milliseconds(1000);

class GuardTest : public testing::ServerTest {
 protected:
  bool everyStreamOnOut1() {
    const auto streams = server->sinkInputs();
    return std::all_of(streams.begin(), streams.end(),
                       [](const auto& stream) { return stream.sink == "out1"; });
  }

  // Quellix with two players muted and one at half volume, ended by `signal`: every player has
  // its own level back at once and nothing of ours is left. A quit takes its taps down itself;
  // only after a kill has the guard anything to clean up, which it logs as an error.
  void endQuellixWith(int signal, bool guardCleansUp) {
    TestPlayerProcess first(
        {.appID = "org.example.First", .frequency = 440, .amplitude = kAmplitude});
    TestPlayerProcess second(
        {.appID = "org.example.Second", .frequency = 660, .amplitude = kAmplitude});
    TestPlayerProcess third(
        {.appID = "org.example.Third", .frequency = 990, .amplitude = kAmplitude});
    const std::string log = (preferences.path() / "log").string();
    ChildProcess quellix({QUELLIX_MUTING_PROCESS, preferences.path().string()},
                         {.pipeStdin = true, .pipeStdout = true, .errorFile = log});
    ASSERT_EQ(quellix.readLine(std::chrono::seconds(10)), "ready");
    for (const char* command :
         {"mute org.example.First", "mute org.example.Second", "volume org.example.Third 0.5"}) {
      quellix.send(command);
      ASSERT_EQ(quellix.readLine(std::chrono::seconds(15)), "ok") << command;
    }
    ASSERT_TRUE(testing::eventually([&] { return !everyStreamOnOut1(); }));

    const auto ended = std::chrono::steady_clock::now();
    quellix.signal(signal);
    ASSERT_TRUE(quellix.wait(std::chrono::seconds(5)).has_value());
    ASSERT_TRUE(
        testing::eventually([&] { return server->holdsNothingOfOurs() && everyStreamOnOut1(); }, {},
                            std::chrono::seconds(5)));
    const auto took = std::chrono::steady_clock::now() - ended;
    EXPECT_LT(took, kGuardDeadline)
        << std::chrono::duration_cast<milliseconds>(took).count() << " ms";
    EXPECT_NEAR(server->level(), kToneLevel + kThreeTonesDb, testing::kLevelToleranceDb)
        << server->lastLevels();
    std::ifstream logged(log);
    const std::string lines((std::istreambuf_iterator<char>(logged)), {});
    EXPECT_EQ(lines.find("[TapGuard] error") != std::string::npos, guardCleansUp) << lines;
  }

  // A tap sink as Quellix makes them, of the owner given.
  void leftover(const std::string& name, const std::string& owner, const std::string& start) {
    server->pactl({"load-module", "module-null-sink", "sink_name=" + name,
                   "sink_properties=\"quellix.tap.owner=" + owner +
                       " quellix.tap.owner-start=" + start + " quellix.tap.uuid=" + name + "\""});
  }

  // Moves the one stream there is onto `sink`, once the sink is there.
  void moveTheOnlyStreamTo(const std::string& sink) {
    ASSERT_TRUE(testing::eventually([&] {
      return server->pactl({"list", "short", "sinks"}).find(sink) != std::string::npos;
    }));
    // The player's stream may not be up yet, PipeWire applies a move a little later, and a
    // loaded machine's session manager can drop one made while it still sets the stream up:
    // moved again until it sticks.
    constexpr auto kMoveAgainAfter = std::chrono::milliseconds(500);
    auto lastMove = std::chrono::steady_clock::time_point();
    ASSERT_TRUE(testing::eventually([&] {
      const auto streams = server->sinkInputs();
      if (streams.empty()) {
        return false;
      }
      if (streams.front().sink == sink) {
        return true;
      }
      if (std::chrono::steady_clock::now() - lastMove > kMoveAgainAfter) {
        lastMove = std::chrono::steady_clock::now();
        try {
          server->pactl({"move-sink-input", streams.front().index, sink});
        } catch (const std::exception&) {
          // gone meanwhile; the next look finds its successor
        }
      }
      return false;
    }));
  }

  testing::TemporaryDirectory preferences;
};

TEST_P(GuardTest, AKilledQuellixLeavesEveryPlayerAtItsOwnLevel) {
  endQuellixWith(SIGKILL, true);
}

TEST_P(GuardTest, AQuitQuellixLeavesEveryPlayerAtItsOwnLevel) {
  endQuellixWith(SIGTERM, false);
}

TEST_P(GuardTest, TheSweepRemovesTheEndedOwnersTapsAndThoseOfNobodyOnly) {
  TestPlayerProcess player({});
  const auto self = pulse::currentProcess();
  leftover("quellix.tap.mine", std::to_string(self.pid), self.start);
  leftover("quellix.tap.reused", std::to_string(self.pid), "1");
  leftover("quellix.tap.other", std::to_string(player.pid()),
           pulse::processStartTime(player.pid()));
  ASSERT_TRUE(testing::eventually([&] {
    const std::string sinks = server->pactl({"list", "short", "sinks"});
    return sinks.find("tap.mine") != std::string::npos &&
           sinks.find("tap.other") != std::string::npos;
  }));
  moveTheOnlyStreamTo("quellix.tap.reused");

  // A live owner keeps its sinks; a start time that is not the PID's is somebody gone.
  EXPECT_EQ(TapGuard::sweep(std::nullopt, {}, std::chrono::seconds(5), logs), 1);
  EXPECT_TRUE(everyStreamOnOut1());
  EXPECT_EQ(TapGuard::sweep(self, {}, std::chrono::seconds(5), logs), 1);
  const std::string sinks = server->pactl({"list", "short", "sinks"});
  EXPECT_EQ(sinks.find("tap.mine"), std::string::npos);
  EXPECT_NE(sinks.find("tap.other"), std::string::npos) << "its owner still runs";

  server->stop();
  EXPECT_EQ(TapGuard::sweep(self, {}, milliseconds(300), logs), std::nullopt);
}

TEST_P(GuardTest, TheBackendRemovesTheTapsOfAGoneOwnerAsItConnects) {
  TestPlayerProcess player({});
  leftover("quellix.tap.gone", "999999", "1");
  moveTheOnlyStreamTo("quellix.tap.gone");
  connectBackend();
  EXPECT_TRUE(
      testing::eventually([&] { return server->holdsNothingOfOurs() && everyStreamOnOut1(); }));
}

QUELLIX_ON_EVERY_SERVER(GuardTest);

}  // namespace
}  // namespace quellix
