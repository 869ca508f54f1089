#include "state/AppControl.h"

#include <gtest/gtest.h>

#include <cmath>

#include "harness/AppStateFixture.h"

namespace quellix {
namespace {

using Kind = AppControl::Error::Kind;

class AppControlTest : public testing::AppStateTest {
 protected:
  AppControl& startWithApps() {
    addPlayingApp(100, "org.example.Music", "Music");
    addPlayingApp(110, "org.one.Player", "Player");
    addPlayingApp(120, "org.two.Player", "Player");
    system.addApplication("org.mozilla.firefox", "Firefox", "firefox-bin");
    system.addProcess({.pid = 200, .executable = "firefox-bin"});
    sim->addProcess({.pid = 200, .runningOutput = true, .level = 0.5f});
    defaults->set("onboardingCompleted", true);
    return start().control();
  }

  std::optional<Kind> failure(const std::function<void()>& action) {
    try {
      action();
    } catch (const AppControl::Error& error) {
      return error.kind();
    }
    return std::nullopt;
  }
};

TEST_F(AppControlTest, NamesMatchAsTheRowsShowThemInAnyCase) {
  AppControl& control = startWithApps();
  struct Case {
    const char* query;
    std::variant<std::string, Kind> expected;
  };
  for (const Case& c : {
           Case{"music", std::string("org.example.Music")},
           Case{"ORG.EXAMPLE.MUSIC", std::string("org.example.Music")},
           Case{"org.example.Music.desktop", std::string("org.example.Music")},
           Case{"firefox-bin", std::string("org.mozilla.firefox")},
           Case{"FIREFOX", std::string("org.mozilla.firefox")},
           Case{"org.two.player", std::string("org.two.Player")},
           Case{"player", Kind::ambiguousApp},
           Case{"Musi", Kind::unknownApp},
           Case{"", Kind::unknownApp},
       }) {
    SCOPED_TRACE(c.query);
    std::variant<std::string, Kind> found;
    try {
      found = control.find(c.query).key();
    } catch (const AppControl::Error& error) {
      found = error.kind();
      if (error.kind() == Kind::ambiguousApp) {
        EXPECT_EQ(error.candidates().size(), 2u) << "the message names both candidates";
      }
    }
    EXPECT_EQ(found, c.expected);
  }
}

TEST_F(AppControlTest, CommandsReachTheMuteControllerAndBadInputChangesNothing) {
  AppControl& control = startWithApps();
  MuteController& muter = state->muter();

  EXPECT_TRUE(control.mute("Music").muted);
  EXPECT_TRUE(control.mute("Music").muted) << "muting twice keeps it muted";
  EXPECT_TRUE(muter.hasTap("org.example.Music"));
  EXPECT_FALSE(control.unmute("music").muted);
  EXPECT_FALSE(control.unmute("music").muted);
  EXPECT_TRUE(control.toggle("firefox-bin").muted);
  EXPECT_FALSE(control.toggle("firefox-bin").muted);
  EXPECT_EQ(control.setVolume("Music", 40).volume, 40);
  EXPECT_NEAR(muter.tapGain("org.example.Music"), 0.4f, 1e-4);

  const auto mutedBefore = muter.mutedKeys().get();
  const auto volumesBefore = muter.volumes().get();
  const double masterBefore = state->systemVolume().volume().get();
  struct Case {
    const char* name;
    std::function<void()> action;
    Kind expected;
  };
  for (const Case& c : {
           Case{"unknown", [&] { control.toggle("Nothing"); }, Kind::unknownApp},
           Case{"ambiguous", [&] { control.mute("Player"); }, Kind::ambiguousApp},
           Case{"above", [&] { control.setVolume("Music", 101); }, Kind::volumeOutOfRange},
           Case{"below", [&] { control.setVolume("Music", -1); }, Kind::volumeOutOfRange},
           Case{"nan", [&] { control.setVolume("Music", std::nan("")); }, Kind::volumeOutOfRange},
           Case{"range before name", [&] { control.setVolume("Nothing", 200); },
                Kind::volumeOutOfRange},
           Case{"master nan", [&] { control.setMasterVolume(std::nan("")); },
                Kind::volumeOutOfRange},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(failure(c.action), c.expected);
    queue.drain();
    EXPECT_EQ(muter.mutedKeys().get(), mutedBefore);
    EXPECT_EQ(muter.volumes().get(), volumesBefore);
    EXPECT_EQ(state->systemVolume().volume().get(), masterBefore);
  }
}

TEST_F(AppControlTest, ChangesAreToldOnceEachWhateverCausedThem) {
  AppControl& control = startWithApps();
  std::vector<AppListing> appChanges;
  std::vector<std::pair<int, bool>> masterChanges;
  control.onAppChanged([&](const AppListing& app) { appChanges.push_back(app); });
  control.onMasterChanged(
      [&](int volume, bool muted) { masterChanges.emplace_back(volume, muted); });

  control.mute("Music");
  state->muter().setVolume(0.25f, control.find("firefox"));  // as a row's slider does
  control.unmute("Music");  // already told apart from the mute by the queue below
  queue.drain();
  control.setMasterVolume(30);
  queue.drain();
  control.setMasterMuted(true);
  queue.drain();

  ASSERT_EQ(appChanges.size(), 1u) << "mute and unmute before the queue ran cancel out";
  EXPECT_EQ(appChanges[0], (AppListing{"Firefox", "org.mozilla.firefox", false, 25}));
  EXPECT_EQ(masterChanges, (std::vector<std::pair<int, bool>>{{30, false}, {30, true}}));
}

TEST_F(AppControlTest, APlayersProcessTogglesTheRowOfItsNearestAncestorWithOne) {
  system.addProcess({.pid = 201, .parent = 200, .executable = "firefox-content"});
  AppControl& control = startWithApps();
  const auto viaChild = control.toggleProcess(201);
  ASSERT_TRUE(viaChild);
  EXPECT_EQ(viaChild->id, "org.mozilla.firefox");
  EXPECT_TRUE(viaChild->muted);
  EXPECT_FALSE(control.toggleProcess(4242)) << "a process with no row changes nothing";
  EXPECT_EQ(state->muter().mutedKeys().get(), (std::set<std::string>{"org.mozilla.firefox"}));
}

}  // namespace
}  // namespace quellix
