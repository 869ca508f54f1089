#include "audio/pulse/TapGuard.h"

#include <gtest/gtest.h>
#include <signal.h>

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
constexpr double kTolerance = 0.5;
constexpr auto kGuardDeadline = milliseconds(1000);

class GuardTest : public testing::ServerTest {
 protected:
  // Whether the server holds anything of ours: a module, a sink or a stream.
  bool nothingOfOursLeft() {
    return server->pactl({"list", "short", "modules"}).find("quellix") == std::string::npos &&
           server->pactl({"list", "short", "sinks"}).find("quellix") == std::string::npos &&
           server->pactl({"list", "sink-inputs"}).find("quellix.io") == std::string::npos;
  }

  // Every stream on the sink `out1`: its number in "list short sinks" is the second column
  // of each stream's line in "list short sink-inputs".
  bool everyStreamOnOut1() {
    std::string out1;
    std::istringstream sinks(server->pactl({"list", "short", "sinks"}));
    for (std::string line; std::getline(sinks, line);) {
      std::istringstream fields(line);
      std::string index, name;
      fields >> index >> name;
      if (name == "out1") {
        out1 = index;
      }
    }
    std::istringstream streams(server->pactl({"list", "short", "sink-inputs"}));
    for (std::string line; std::getline(streams, line);) {
      std::istringstream fields(line);
      std::string index, sink;
      fields >> index >> sink;
      if (sink != out1) {
        return false;
      }
    }
    return true;
  }

  double outputLevel() {
    return testing::settledLevel(server->runtimeDir(), "out1.monitor",
                                 std::chrono::milliseconds(1500), &lastLevels);
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
    ASSERT_FALSE(everyStreamOnOut1());

    const auto ended = std::chrono::steady_clock::now();
    quellix.signal(signal);
    ASSERT_TRUE(quellix.wait(std::chrono::seconds(5)).has_value());
    ASSERT_TRUE(testing::eventually([&] { return nothingOfOursLeft() && everyStreamOnOut1(); }, {},
                                    std::chrono::seconds(5)));
    const auto took = std::chrono::steady_clock::now() - ended;
    EXPECT_LT(took, kGuardDeadline)
        << std::chrono::duration_cast<milliseconds>(took).count() << " ms";
    // Three tones of the same level at different pitches: their powers add.
    EXPECT_NEAR(outputLevel(), kToneLevel + 4.77, kTolerance) << lastLevels;
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
    // The player's stream may not be up yet, and PipeWire applies a move a little later.
    std::string streams;
    ASSERT_TRUE(testing::eventually([&] {
      streams = server->pactl({"list", "short", "sink-inputs"});
      return !streams.empty();
    }));
    server->pactl({"move-sink-input", streams.substr(0, streams.find('\t')), sink});
    ASSERT_TRUE(testing::eventually([&] { return !everyStreamOnOut1(); }));
  }

  testing::TemporaryDirectory preferences;
  std::string lastLevels;
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
  EXPECT_EQ(TapGuard::sweep(std::nullopt, {}, std::chrono::seconds(5)), 1);
  EXPECT_TRUE(everyStreamOnOut1());
  EXPECT_EQ(TapGuard::sweep(self, {}, std::chrono::seconds(5)), 1);
  const std::string sinks = server->pactl({"list", "short", "sinks"});
  EXPECT_EQ(sinks.find("tap.mine"), std::string::npos);
  EXPECT_NE(sinks.find("tap.other"), std::string::npos) << "its owner still runs";

  server->stop();
  EXPECT_EQ(TapGuard::sweep(self, {}, milliseconds(300)), std::nullopt);
}

TEST_P(GuardTest, TheBackendRemovesTheTapsOfAGoneOwnerAsItConnects) {
  TestPlayerProcess player({});
  leftover("quellix.tap.gone", "999999", "1");
  moveTheOnlyStreamTo("quellix.tap.gone");
  connectBackend();
  EXPECT_TRUE(testing::eventually([&] { return nothingOfOursLeft() && everyStreamOnOut1(); }));
}

QUELLIX_ON_EVERY_SERVER(GuardTest);

}  // namespace
}  // namespace quellix
