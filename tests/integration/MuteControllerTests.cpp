#include "engine/muting/MuteController.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "audio/pulse/PulseBackend.h"
#include "engine/volume/SystemVolumeController.h"
#include "harness/ChildProcess.h"
#include "harness/LevelMeter.h"
#include "harness/ServerTest.h"
#include "harness/TestPlayerProcess.h"
#include "harness/TestSupport.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

using testing::kHalfGainDb;
using testing::kLevelToleranceDb;
using testing::kSilentBelowDbfs;
using testing::kToneDbfs;
using testing::kTwoTonesDb;
using testing::SoundServer;
using testing::TestPlayerProcess;

// The controller as the application wires it: every change of the monitor's list is
// reconciled.
class MuteControllerIntegrationTest : public testing::ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    connectBackend();
    startQuellix();
  }

  void TearDown() override {
    stopQuellix();
    ServerTest::TearDown();
  }

  void startQuellix() {
    defaults =
        std::make_unique<DefaultsStore>(preferences.path() / "preferences.json", queue, logs);
    controller = MuteController::create(queue, *hardware, *defaults, clock, logs);
    auto roots = Workspace::systemRoots();
    roots.dataDirs = {preferences.path()};
    monitor =
        AudioProcessMonitor::create(queue, *hardware, std::make_shared<Workspace>(roots), logs);
    monitor->setOnChange(
        [this](const std::vector<AudioApp>& apps) { controller->reconcile(apps); });
    monitor->start();
  }

  void stopQuellix() {
    // As at the end of a run: nothing is torn down, the taps stay until the next start.
    monitor.reset();
    controller.reset();
    defaults.reset();
  }

  std::optional<AudioApp> appWithKey(const std::string& key) {
    for (const auto& app : monitor->apps().get()) {
      if (app.key() == key) {
        return app;
      }
    }
    return std::nullopt;
  }

  AudioApp waitForApp(const std::string& key) {
    EXPECT_TRUE(eventually([&] { return appWithKey(key).has_value(); })) << key;
    return appWithKey(key).value_or(AudioApp{});
  }

  double level(const std::string& sink = "out1") {
    queue.drain();
    return server->level(sink);
  }

  testing::TemporaryDirectory preferences;
  SystemWallClock clock;
  std::unique_ptr<DefaultsStore> defaults;
  std::shared_ptr<MuteController> controller;
  std::shared_ptr<AudioProcessMonitor> monitor;
};

TEST_P(MuteControllerIntegrationTest, MuteAttenuateAndUnmuteAsThePanelDoes) {
  TestPlayerProcess player({.appID = "org.example.Player"});
  const AudioApp app = waitForApp("org.example.Player");
  controller->toggle(app);
  EXPECT_LT(level(), kSilentBelowDbfs) << server->lastLevels();
  controller->toggle(app);
  controller->setVolume(0.5f, app);
  EXPECT_NEAR(level(), kToneDbfs + kHalfGainDb, kLevelToleranceDb) << server->lastLevels();
  controller->setVolume(1.0f, app);
  EXPECT_EQ(controller->tapCount(), 0u);
  EXPECT_NEAR(level(), kToneDbfs, kLevelToleranceDb) << server->lastLevels();
  EXPECT_TRUE(eventually([&] { return server->holdsNothingOfOurs(); }));
}

TEST_P(MuteControllerIntegrationTest, ARestartedQuellixSilencesTheSavedMuteAtOnce) {
  TestPlayerProcess player({.appID = "org.example.Player"});
  controller->toggle(waitForApp("org.example.Player"));
  ASSERT_LT(level(), kSilentBelowDbfs) << server->lastLevels();
  stopQuellix();
  // The next run: the old tap is a leftover of a live process (us); a new one is built.
  startQuellix();
  EXPECT_TRUE(eventually([&] { return controller->hasTap("org.example.Player"); }));
  EXPECT_LT(level(), kSilentBelowDbfs) << server->lastLevels();
}

TEST_P(MuteControllerIntegrationTest, AMutedPlayerThatRestartsIsMutedFromItsFirstReconciliation) {
  {
    TestPlayerProcess player({.appID = "org.example.Player"});
    controller->toggle(waitForApp("org.example.Player"));
    ASSERT_LT(level(), kSilentBelowDbfs) << server->lastLevels();
    player.kill();
  }
  EXPECT_TRUE(eventually([&] { return controller->tapCount() == 0; }));
  TestPlayerProcess again({.appID = "org.example.Player"});
  EXPECT_TRUE(eventually([&] { return controller->hasTap("org.example.Player"); }));
  EXPECT_LT(level(), kSilentBelowDbfs) << server->lastLevels();
}

TEST_P(MuteControllerIntegrationTest, MutedPlayersAreSilentAgainSoonAfterTheServerRestarts) {
  std::vector<std::unique_ptr<TestPlayerProcess>> players;
  for (const char* key : {"org.example.First", "org.example.Second", "org.example.Third"}) {
    players.push_back(std::make_unique<TestPlayerProcess>(
        TestPlayerProcess::Options{.appID = key, .reconnect = true}));
    controller->toggle(waitForApp(key));
  }
  ASSERT_EQ(controller->tapCount(), 3u);

  server->stop();
  ASSERT_TRUE(eventually([&] { return !snapshot()->connected; }));
  // When each player's stream shows up on the new connection, and when it was last heard
  // (off a tap sink), watched closely while the main queue is served here.
  using Clock = std::chrono::steady_clock;
  std::map<pid_t, Clock::time_point> appeared;
  std::map<pid_t, Clock::time_point> lastHeard;
  std::atomic<std::size_t> onTaps{0};
  std::atomic<bool> watching{true};
  std::thread watcher([&] {
    while (watching) {
      const auto snapshot = this->snapshot();
      std::size_t count = 0;
      for (const auto& stream : snapshot->sinkInputs) {
        if (stream.pid == 0 || stream.isOurIO) {
          continue;
        }
        appeared.try_emplace(stream.pid, Clock::now());
        if (std::any_of(snapshot->tapSinks.begin(), snapshot->tapSinks.end(),
                        [&](const pulse::TapSink& tap) { return tap.index == stream.sink; })) {
          ++count;
        } else {
          lastHeard[stream.pid] = Clock::now();
        }
      }
      onTaps = count;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  server->start();
  const bool allSilenced = eventually([&] { return onTaps == players.size(); });
  const double silence = level();  // a rebuild that follows would be heard here
  watching = false;
  watcher.join();
  ASSERT_TRUE(allSilenced) << server->pactl({"list", "sink-inputs"});
  EXPECT_LT(silence, kSilentBelowDbfs) << server->lastLevels();
  EXPECT_EQ(onTaps, players.size());
  for (const auto& [pid, at] : lastHeard) {
    EXPECT_LT(at - appeared[pid], std::chrono::seconds(2))
        << std::chrono::duration_cast<std::chrono::milliseconds>(at - appeared[pid]).count()
        << " ms";
  }
  // Taps that went with the old connection are gone, which their removal finds in order.
  const auto entries = logs->entries();
  EXPECT_EQ(std::count_if(entries.begin(), entries.end(),
                          [](const LogEntry& e) {
                            return e.category == "ProcessMuteTap" && e.level == LogLevel::error;
                          }),
            0);
  // Nothing of the old connection: three taps, each with its one sink and its two streams.
  EXPECT_EQ(controller->tapCount(), 3u);
  EXPECT_EQ(snapshot()->tapSinks.size(), 3u);
  const auto streams = snapshot()->sinkInputs;
  EXPECT_EQ(std::count_if(streams.begin(), streams.end(), [](const auto& s) { return s.isOurIO; }),
            3);
}

TEST_P(MuteControllerIntegrationTest, TappedSoundFollowsTheNewDefaultOutput) {
  if (GetParam() == testing::ServerSetup::pipeWire) {
    // Known defect: through pipewire-pulse, a tap rebuilt for the new default sometimes never
    // gets its sink back (the players end up on the output unattenuated). Asserting it here
    // would make every run a coin toss until the rebuild is fixed.
    GTEST_SKIP() << "taps rebuilt on a new default are not reliable through pipewire-pulse yet";
  }
  TestPlayerProcess first({.appID = "org.example.First"});
  TestPlayerProcess second({.appID = "org.example.Second", .frequency = 660});
  controller->setVolume(0.5f, waitForApp("org.example.First"));
  controller->setVolume(0.5f, waitForApp("org.example.Second"));
  ASSERT_EQ(controller->tapCount(), 2u);

  const struct {
    const char* change;
    std::function<void(SoundServer&)> apply;
    const char* newDefault;
  } kChanges[] = {
      {"the user picks another output",
       [](SoundServer& s) { ASSERT_TRUE(s.setDefaultSink("out2")); }, "out2"},
      // The headset is unplugged: its sink goes, and the server picks the other one.
      {"the default output is removed", [](SoundServer& s) { s.removeSink("out2"); }, "out1"},
  };
  for (const auto& step : kChanges) {
    SCOPED_TRACE(step.change);
    step.apply(*server);
    const std::string newDefault = step.newDefault;
    const auto changed = std::chrono::steady_clock::now();
    // Both players on taps whose sound goes to the new default, and no stream of ours
    // anywhere else.
    auto followed = [&] {
      const auto snapshot = this->snapshot();
      const auto* output = snapshot->deviceWithUID(newDefault);
      if (output == nullptr || snapshot->defaultOutput != output->id ||
          snapshot->tapSinks.size() != 2) {
        return false;
      }
      int ours = 0;
      for (const auto& stream : snapshot->sinkInputs) {
        const bool onTap =
            std::any_of(snapshot->tapSinks.begin(), snapshot->tapSinks.end(),
                        [&](const pulse::TapSink& tap) { return tap.index == stream.sink; });
        if (stream.isOurIO ? stream.sink != output->sinkIndex : !onTap) {
          return false;
        }
        ours += stream.isOurIO ? 1 : 0;
      }
      return ours == 2;
    };
    ASSERT_TRUE(eventually(followed)) << server->pactl({"list", "short", "sink-inputs"});
    const auto took = std::chrono::steady_clock::now() - changed;
    EXPECT_LT(took, std::chrono::seconds(1))
        << std::chrono::duration_cast<std::chrono::milliseconds>(took).count() << " ms";
    EXPECT_EQ(controller->tapCount(), 2u);
    EXPECT_NEAR(level(newDefault), kToneDbfs + kHalfGainDb + kTwoTonesDb, kLevelToleranceDb)
        << server->lastLevels();
  }
}

// A server that hangs holds up no call of the main thread; once it answers again the sound is
// what the calls asked for, and each request it left unanswered in time failed with one line.
TEST_P(MuteControllerIntegrationTest, AHungServerHoldsUpNoCallOfTheMainThread) {
  if (GetParam() != testing::ServerSetup::pulseAudio) {
    GTEST_SKIP() << "PipeWire's graph, stopped and continued, stays silent";
  }
  TestPlayerProcess first({.appID = "org.example.First"});
  TestPlayerProcess second({.appID = "org.example.Second", .frequency = 660});
  const AudioApp muted = waitForApp("org.example.First");
  const AudioApp quieter = waitForApp("org.example.Second");
  const auto master = SystemVolumeController::create(queue, *hardware, logs);
  logs->clear();
  server->signal(SIGSTOP);
  const std::function<void()> calls[] = {
      [&] { controller->toggle(muted); }, [&] { controller->setVolume(0.5f, quieter); },
      [&] { master->setVolume(0.9); },    [&] { master->setMuted(true); },
      [&] { master->setVolume(1.0); },  // and unmuted
      [&] { controller->toggle(muted); },  // taken down behind its own creation
      [&] { controller->toggle(muted); },
  };
  for (const auto& call : calls) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
  }
  // The tap's, the volume's and the mute's lane each time out, with one line each.
  EXPECT_TRUE(eventually([&] { return logs->messages("AudioBackend").size() >= 3; }));
  server->signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return server->volumePercent("out1") == 100; }));
  EXPECT_TRUE(eventually([&] { return backend->snapshot()->tapSinks.size() == 2; }));
  EXPECT_NEAR(level(), kToneDbfs + kHalfGainDb, kLevelToleranceDb) << server->lastLevels();
}

QUELLIX_ON_EVERY_SERVER(MuteControllerIntegrationTest);

class OutputRoutingTest : public MuteControllerIntegrationTest {
 protected:
  AudioApp waitForPID(pid_t pid) {
    std::optional<AudioApp> found;
    EXPECT_TRUE(eventually([&] {
      for (const auto& app : monitor->apps().get()) {
        found = app.id == pid ? std::optional<AudioApp>(app) : found;
      }
      return found.has_value();
    }));
    return found.value_or(AudioApp{});
  }

  // Every stream of `pid` plays on `sink`, none on a tap.
  bool playsOn(pid_t pid, const std::string& sink) {
    return eventually([&] {
      const auto snapshot = backend->snapshot();
      const auto* device = snapshot->deviceWithUID(sink);
      return device != nullptr && std::all_of(snapshot->sinkInputs.begin(),
                                              snapshot->sinkInputs.end(), [&](const auto& s) {
                                                return s.pid != pid || s.sink == device->sinkIndex;
                                              });
    });
  }
};

TEST_P(OutputRoutingTest, AChosenOutputHasThePlayerWhileItIsThereTurnedDownOrNot) {
  const auto tone = server->runtimeDir() / "tone.wav";
  testing::runProgram({"sox", "-n", "-r", "48000", "-c", "2", tone.string(), "synth", "120", "sine",
                       "440", "vol", "0.5"});
  testing::ChildProcess player({"paplay", tone.string()}, {});
  const AudioApp app = waitForPID(player.pid());
  controller->setOutputDevice("out2", app);
  for (const float volume : {1.0f, 0.5f}) {
    SCOPED_TRACE(volume);
    controller->setVolume(volume, app);
    const double expected = kToneDbfs + (volume < 1.0f ? kHalfGainDb : 0.0);
    EXPECT_TRUE(volume < 1.0f || playsOn(player.pid(), "out2"));
    EXPECT_NEAR(level("out2"), expected, kLevelToleranceDb) << server->lastLevels();
    EXPECT_LT(level("out1"), kSilentBelowDbfs) << server->lastLevels();

    // Measured once Quellix has seen the device go and come back, and acted on it.
    auto outputsSeen = [&](std::size_t count) {
      return eventually([&] { return controller->outputDevices().get().size() == count; });
    };
    server->removeSink("out2");
    ASSERT_TRUE(outputsSeen(1));
    EXPECT_NEAR(level("out1"), expected, kLevelToleranceDb) << server->lastLevels();
    server->pactl({"load-module", "module-null-sink", "sink_name=out2", "rate=48000"});
    ASSERT_TRUE(outputsSeen(2));
    EXPECT_TRUE(volume < 1.0f || playsOn(player.pid(), "out2"));
    EXPECT_LT(level("out1"), kSilentBelowDbfs) << server->lastLevels();
    EXPECT_NEAR(level("out2"), expected, kLevelToleranceDb) << server->lastLevels();
  }
  controller->setVolume(1.0f, app);
  controller->setOutputDevice("", app);
  EXPECT_TRUE(playsOn(player.pid(), "out1"));
}

TEST_P(OutputRoutingTest, HearOnlySilencesTheOthersAndUsedAgainBringsThemBack) {
  TestPlayerProcess first({.appID = "org.example.First"});
  TestPlayerProcess second({.appID = "org.example.Second", .frequency = 660});
  const AudioApp heard = waitForApp("org.example.First");
  waitForApp("org.example.Second");
  controller->hearOnly(heard);
  EXPECT_NEAR(level(), kToneDbfs, kLevelToleranceDb) << server->lastLevels();
  controller->hearOnly(heard);
  EXPECT_EQ(controller->tapCount(), 0u);
  EXPECT_NEAR(level(), kToneDbfs + kTwoTonesDb, kLevelToleranceDb) << server->lastLevels();
}

QUELLIX_ON_EVERY_SERVER(OutputRoutingTest);

}  // namespace
}  // namespace quellix
