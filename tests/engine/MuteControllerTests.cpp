#include "engine/muting/MuteController.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;
using std::chrono::seconds;

class MuteControllerTest : public testing::SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    output = addDefaultOutput("speakers");
  }

  std::shared_ptr<MuteController> makeController() {
    defaults = std::make_unique<DefaultsStore>(directory.path() / "preferences.json", queue, logs);
    return MuteController::create(queue, hardware, *defaults, clock, logs);
  }

  AudioApp app(const std::string& bundleID, std::vector<AudioObjectID> objects, pid_t pid = 10) {
    AudioApp result{.id = pid, .name = bundleID, .processObjectIDs = std::move(objects)};
    if (!bundleID.empty()) {
      result.bundleID = bundleID;
    }
    return result;
  }

  float heard() { return sim->render(8)[output][7]; }

  std::size_t destroyedLines() {
    const auto lines = logs->messages("ProcessMuteTap");
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [](const auto& l) {
      return l.rfind("Destroyed tap for ", 0) == 0;
    }));
  }

  testing::TemporaryDirectory directory;
  ManualWallClock clock;
  std::unique_ptr<DefaultsStore> defaults;
  AudioObjectID output = 0;
};

// Attenuation and the tap's removal at full volume are heard in the integration tests.
TEST_F(MuteControllerTest, ASliderDragRetunesOneTapAndRemovesItNearFullVolume) {
  const AudioObjectID player = sim->addProcess({.pid = 10, .level = 0.5f});
  auto controller = makeController();
  const AudioApp music = app("org.example.Music", {player});
  controller->reconcile({music});
  controller->setVolume(0.5f, music);
  controller->setVolume(0.7f, music);
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 1u) << "retuned, not rebuilt";
  EXPECT_FLOAT_EQ(heard(), 0.35f);
  controller->setVolume(0.996f, music);
  EXPECT_FALSE(controller->hasTap("org.example.Music"));
  EXPECT_TRUE(controller->volumes().get().empty());

  controller->setVolume(std::nanf(""), music);
  EXPECT_TRUE(controller->volumes().get().empty()) << "not a number counts as full volume";
  controller->setVolume(-3.0f, music);
  EXPECT_FLOAT_EQ(controller->volumes().get().at("org.example.Music"), 0.0f);
}

TEST_F(MuteControllerTest, AVolumeMovedWhileMutedWaitsForTheUnmute) {
  const AudioObjectID player = sim->addProcess({.pid = 10, .level = 0.5f});
  auto controller = makeController();
  const AudioApp music = app("org.example.Music", {player});
  controller->reconcile({music});
  controller->toggle(music);
  controller->setVolume(0.3f, music);
  EXPECT_FLOAT_EQ(controller->volumes().get().at("org.example.Music"), 0.3f);
  EXPECT_FLOAT_EQ(controller->tapGain("org.example.Music"), 0.0f);
  EXPECT_FLOAT_EQ(heard(), 0.0f);
  controller->toggle(music);
  EXPECT_FLOAT_EQ(controller->tapGain("org.example.Music"), 0.3f);
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 1u) << "the same tap continues";
}

TEST_F(MuteControllerTest, ToggleCountsMutesAndTimesTheIntervals) {
  const AudioObjectID player = sim->addProcess({.pid = 10, .level = 0.5f});
  const AudioObjectID other = sim->addProcess({.pid = 11, .level = 0.25f});
  auto controller = makeController();
  const AudioApp music = app("org.example.Music", {player});
  const AudioApp radio = app("org.example.Radio", {other}, 11);
  controller->reconcile({music, radio});

  controller->toggle(music);
  EXPECT_EQ(controller->statsMuteCount().get(), 1);
  EXPECT_EQ(controller->activeMuteCount(), 1);
  EXPECT_FLOAT_EQ(heard(), 0.25f);
  clock.advance(seconds(40));
  EXPECT_DOUBLE_EQ(controller->statsTotalMutedSeconds(), 40.0);
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 0.0) << "running intervals are not closed";
  controller->toggle(music);
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 40.0);
  EXPECT_FALSE(controller->hasTap("org.example.Music"));

  // Muting an application that already has a tap for its volume starts no interval.
  controller->setVolume(0.5f, radio);
  controller->toggle(radio);
  EXPECT_EQ(controller->statsMuteCount().get(), 2);
  EXPECT_FLOAT_EQ(controller->tapGain("org.example.Radio"), 0.0f);
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 2u);
  clock.advance(seconds(100));
  EXPECT_DOUBLE_EQ(controller->statsTotalMutedSeconds(), 40.0);
  EXPECT_EQ(controller->activeMuteCount(), 1);
}

TEST_F(MuteControllerTest, GrowingProcessObjectsRebuildTheTapAndRestartTheInterval) {
  const AudioObjectID first = sim->addProcess({.pid = 10, .level = 0.5f});
  auto controller = makeController();
  controller->reconcile({app("org.example.Browser", {first})});
  controller->toggle(app("org.example.Browser", {first}));
  clock.advance(seconds(5));
  const AudioObjectID second = sim->addProcess({.pid = 12, .level = 0.25f});
  controller->reconcile({app("org.example.Browser", {first, second})});
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 2u);
  EXPECT_EQ(destroyedLines(), 1u);
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 5.0) << "closed at the rebuild";
  EXPECT_DOUBLE_EQ(controller->statsTotalMutedSeconds(), 5.0) << "and restarted at once";
  EXPECT_FLOAT_EQ(heard(), 0.0f);
}

TEST_F(MuteControllerTest, ANewDefaultOutputRebuildsEveryTapWithoutStoppingTheClock) {
  auto controller = makeController();
  std::vector<AudioApp> apps;
  for (int i = 0; i < 3; ++i) {
    const AudioObjectID object = sim->addProcess({.pid = 10 + i});
    apps.push_back(app("org.example.App" + std::to_string(i), {object}, 10 + i));
  }
  controller->reconcile(apps);
  for (const auto& each : apps) {
    controller->toggle(each);
  }
  clock.advance(seconds(60));
  const AudioObjectID headphones = sim->addDevice({.uid = "headphones"});
  sim->setDefaultOutputDevice(headphones);
  queue.drain();
  EXPECT_EQ(destroyedLines(), 3u);
  EXPECT_EQ(controller->tapCount(), 3u);
  for (const auto& aggregate : sim->aggregates()) {
    EXPECT_EQ(aggregate.description["master"], "headphones");
  }
  EXPECT_DOUBLE_EQ(controller->statsTotalMutedSeconds(), 180.0);
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 0.0);
}

TEST_F(MuteControllerTest, TwoEntriesWithOneKeyShareTheFirstOnesTap) {
  const AudioObjectID a = sim->addProcess({.pid = 10});
  const AudioObjectID b = sim->addProcess({.pid = 11});
  auto controller = makeController();
  const AudioApp first = app("org.example.Twice", {a}, 10);
  const AudioApp second = app("org.example.Twice", {b}, 11);
  controller->reconcile({first, second});
  controller->setVolume(0.4f, second);
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 1u);
  ASSERT_EQ(sim->taps().size(), 1u);
  EXPECT_EQ(sim->taps()[0].description.processes(), std::vector<AudioObjectID>{a});
  controller->reconcile({first, second});
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 1u) << "the first entry decides: current";
}

TEST_F(MuteControllerTest, AFailedTapIsLoggedAndRetriedAtEveryReconciliation) {
  const AudioObjectID player = sim->addProcess({.pid = 10});
  auto controller = makeController();
  const AudioApp music = app("org.example.Music", {player});
  sim->failCall(Call::startDevice, -40);
  controller->reconcile({music});
  controller->toggle(music);
  controller->reconcile({music});
  EXPECT_EQ(logs->messages("MuteController").size(), 2u);
  sim->clearFaults();
  controller->reconcile({music});
  EXPECT_TRUE(controller->hasTap("org.example.Music"));
}

TEST_F(MuteControllerTest, PreferencesKeepOnlyLastingKeysAndLoadTypesStrictly) {
  {
    std::ofstream(directory.path() / "preferences.json") << R"({
      "mutedBundleIDs": ["b.app", "a.app"],
      "appVolumes": {"a": 0.5, "b": "0.25", "c": "loud", "d": {"date": 1}, "e": " 0.5", "f": ""},
      "stats.muteCount": 9223372036854775806, "stats.mutedSeconds": 12.5})";
  }
  auto controller = makeController();
  EXPECT_EQ(controller->mutedKeys().get(), (std::set<std::string>{"a.app", "b.app"}));
  EXPECT_EQ(controller->volumes().get(), (std::map<std::string, float>{{"a", 0.5f}, {"b", 0.25f}}));
  EXPECT_EQ(controller->statsMuteCount().get(), std::numeric_limits<std::int64_t>::max() - 1);
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 12.5);

  const AudioObjectID player = sim->addProcess({.pid = 123});
  const AudioApp nameless = app("", {player}, 123);
  controller->reconcile({nameless});
  for (int toggles = 0; toggles < 3; ++toggles) {
    controller->toggle(nameless);  // the second mute meets the largest count
  }
  controller->setVolume(0.5f, nameless);
  EXPECT_EQ(controller->mutedKeys().get().count("pid:123"), 1u);
  controller.reset();
  defaults.reset();  // flushes
  const auto saved = nlohmann::json::parse(std::ifstream(directory.path() / "preferences.json"));
  EXPECT_EQ(saved["mutedBundleIDs"], nlohmann::json({"a.app", "b.app"}));
  EXPECT_FALSE(saved["appVolumes"].contains("pid:123"));
  EXPECT_EQ(saved["stats.muteCount"], std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(makeController()->mutedKeys().get().count("pid:123"), 0u);
}

TEST_F(MuteControllerTest, MistypedPreferencesFallBackKeyByKeyWithOneLineEach) {
  const auto path = directory.path() / "preferences.json";
  {
    std::ofstream(path) << R"({
      "mutedBundleIDs": ["a.app", 3],
      "appVolumes": {"a": 0.5, "b": "nan", "c": 1.5, "d": -0.25, "e": null, "f": "0.75",
                     "g": 1, "h": 0},
      "stats.muteCount": -4, "stats.mutedSeconds": "inf", "onboardingCompleted": true})";
  }
  auto controller = makeController();
  EXPECT_TRUE(controller->mutedKeys().get().empty()) << "a list with a number in it is no list";
  EXPECT_EQ(controller->volumes().get(),
            (std::map<std::string, float>{{"a", 0.5f}, {"f", 0.75f}, {"g", 1.0f}, {"h", 0.0f}}));
  EXPECT_EQ(controller->statsMuteCount().get(), 0);
  EXPECT_EQ(controller->statsMutedSeconds(), 0.0);
  const auto lines = logs->messages("Defaults");
  EXPECT_EQ(lines.size(), 7u) << "the list, four volumes, two statistics";
  EXPECT_TRUE(defaults->boolean("onboardingCompleted")) << "the good keys survive";
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1)
      << "a mistyped key is no reason to move the file aside";

  // Containers of the wrong kind: defaults again, one line per key.
  controller.reset();
  defaults.reset();
  {
    std::ofstream(path) << R"({"mutedBundleIDs": "a.app", "appVolumes": [0.5],
      "stats.muteCount": {"n": 1}, "stats.mutedSeconds": []})";
  }
  logs->clear();
  controller = makeController();
  EXPECT_TRUE(controller->mutedKeys().get().empty());
  EXPECT_TRUE(controller->volumes().get().empty());
  EXPECT_EQ(controller->statsMuteCount().get(), 0);
  EXPECT_EQ(controller->statsMutedSeconds(), 0.0);
  EXPECT_EQ(logs->messages("Defaults").size(), 4u);
}

TEST_F(MuteControllerTest, ADragIsOneDiskWriteAndMuteAllOfNothingStillSaves) {
  const AudioObjectID player = sim->addProcess({.pid = 10});
  auto controller = makeController();
  const AudioApp music = app("org.example.Music", {player});
  controller->reconcile({music});
  for (int step = 0; step < 100; ++step) {
    controller->setVolume(static_cast<float>(step) / 200.0f, music);
  }
  EXPECT_EQ(defaults->diskWrites(), 0u) << "visible at once, written later";
  queue.advance(DefaultsStore::kWriteDelay);
  EXPECT_EQ(defaults->diskWrites(), 1u);

  controller->reconcile({});
  controller->muteAll();
  EXPECT_TRUE(controller->mutedKeys().get().empty());
  queue.advance(DefaultsStore::kWriteDelay);
  const auto saved = nlohmann::json::parse(std::ifstream(directory.path() / "preferences.json"));
  EXPECT_EQ(saved["mutedBundleIDs"], nlohmann::json::array());
  EXPECT_NEAR(saved["appVolumes"]["org.example.Music"].get<double>(), 0.495, 1e-6);
}

TEST_F(MuteControllerTest, MuteAllAndUnmuteAllKeepVolumes) {
  const AudioObjectID a = sim->addProcess({.pid = 10, .level = 0.5f});
  const AudioObjectID b = sim->addProcess({.pid = 11, .level = 0.25f});
  auto controller = makeController();
  const AudioApp first = app("org.example.A", {a}, 10);
  const AudioApp second = app("org.example.B", {b}, 11);
  controller->reconcile({first, second});
  controller->setVolume(0.5f, second);
  controller->muteAll();
  EXPECT_EQ(controller->statsMuteCount().get(), 0);
  EXPECT_EQ(controller->activeMuteCount(), 2);
  EXPECT_FLOAT_EQ(heard(), 0.0f);
  clock.advance(seconds(10));
  controller->unmuteAll();
  EXPECT_DOUBLE_EQ(controller->statsMutedSeconds(), 10.0) << "only the interval that started";
  EXPECT_FALSE(controller->hasTap("org.example.A"));
  EXPECT_FLOAT_EQ(controller->tapGain("org.example.B"), 0.5f);
  EXPECT_FLOAT_EQ(heard(), 0.5f + 0.125f);
}

// Where the chosen output is while it is away and back shows in the integration tests; a new
// default must not drag the chosen tap along, and clearing the choice must.
TEST_F(MuteControllerTest, ANewDefaultMovesNoTapOfAnAppWithAChosenOutput) {
  const AudioObjectID player = sim->addProcess({.pid = 10, .level = 0.5f});
  auto controller = makeController();
  const AudioObjectID headphones = sim->addDevice({.uid = "usb-headset"});
  queue.drain();
  const AudioApp music = app("org.example.Music", {player});
  controller->reconcile({music});
  controller->setOutputDevice("usb-headset", music);
  controller->setVolume(0.5f, music);
  const AudioObjectID hdmi = sim->addDevice({.uid = "hdmi"});
  sim->setDefaultOutputDevice(hdmi);
  queue.drain();
  EXPECT_EQ(sim->callCount(Call::createProcessTap), 1u);
  EXPECT_FLOAT_EQ(sim->render(8)[headphones][7], 0.25f);
  controller->setOutputDevice("", music);
  EXPECT_FLOAT_EQ(sim->render(8)[hdmi][7], 0.25f);
  controller->setVolume(1.0f, music);
  EXPECT_FLOAT_EQ(sim->render(8)[hdmi][7], 0.5f);
}

TEST_F(MuteControllerTest, OutputChoicesPersistAndUnreadableOnesAreReportedAndKept) {
  const auto path = directory.path() / "preferences.json";
  std::ofstream(path) << R"({"appOutputDevices": {"a.app": "usb-headset", "b.app": 3, "c": ""}})";
  auto controller = makeController();
  EXPECT_EQ(controller->outputChoices().get(),
            (std::map<std::string, std::string>{{"a.app", "usb-headset"}}));
  EXPECT_EQ(logs->messages("Defaults").size(), 2u);
  const AudioObjectID player = sim->addProcess({.pid = 123});
  controller->setOutputDevice("hdmi", app("", {player}, 123));
  controller->setOutputDevice("hdmi", app("c", {}));
  controller.reset();
  defaults.reset();
  EXPECT_EQ(nlohmann::json::parse(std::ifstream(path))["appOutputDevices"],
            nlohmann::json({{"a.app", "usb-headset"}, {"b.app", 3}, {"c", "hdmi"}}));
}

// Heard alone and back: the mutes it changed return, the user's later choices stay.
TEST_F(MuteControllerTest, HearOnlyMutesTheOthersAndUsedAgainPutsBackWhatItChanged) {
  std::vector<AudioApp> apps;
  for (const pid_t pid : {10, 11, 12}) {
    apps.push_back(app("app" + std::to_string(pid), {sim->addProcess({.pid = pid})}, pid));
  }
  auto controller = makeController();
  controller->reconcile(apps);
  controller->toggle(apps[0]);
  controller->toggle(apps[1]);
  controller->hearOnly(apps[0]);
  EXPECT_EQ(controller->mutedKeys().get(), (std::set<std::string>{"app11", "app12"}));
  EXPECT_EQ(controller->hearOnlyKey().get(), "app10");
  EXPECT_FLOAT_EQ(heard(), 0.5f);
  const AudioApp later = app("app13", {sim->addProcess({.pid = 13})}, 13);
  apps.push_back(later);
  controller->reconcile(apps);
  controller->toggle(later);
  controller->hearOnly(apps[0]);
  EXPECT_EQ(controller->mutedKeys().get(), (std::set<std::string>{"app10", "app11", "app13"}));
  EXPECT_EQ(controller->hearOnlyKey().get(), std::nullopt);
  EXPECT_EQ(controller->statsMuteCount().get(), 3) << "only the user's mutes count";

  controller->hearOnly(apps[2]);
  controller->muteAll();
  EXPECT_EQ(controller->hearOnlyKey().get(), std::nullopt) << "a mass action ends it";
  controller->hearOnly(apps[2]);
  EXPECT_EQ(controller->mutedKeys().get(), (std::set<std::string>{"app10", "app11", "app13"}));
}

}  // namespace
}  // namespace quellix
