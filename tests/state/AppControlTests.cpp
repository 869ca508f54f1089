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

TEST_F(AppControlTest, CommandsSetTheRowsStateAndBadInputChangesNothing) {
  AppControl& control = startWithApps();
  MuteController& muter = state->muter();
  EXPECT_TRUE(control.mute("Music").muted);
  EXPECT_TRUE(control.mute("Music").muted) << "muting twice keeps it muted";
  EXPECT_FALSE(control.unmute("music").muted);

  // Refusals beyond what the control command tests send.
  const auto volumesBefore = muter.volumes().get();
  const double masterBefore = state->systemVolume().volume().get();
  struct Case {
    const char* name;
    std::function<void()> action;
    Kind expected;
  };
  for (const Case& c : {
           Case{"ambiguous", [&] { control.mute("Player"); }, Kind::ambiguousApp},
           Case{"nan", [&] { control.setVolume("Music", std::nan("")); }, Kind::volumeOutOfRange},
           Case{"master", [&] { control.setMasterVolume(-1); }, Kind::volumeOutOfRange},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(failure(c.action), c.expected);
    EXPECT_TRUE(muter.mutedKeys().get().empty());
    EXPECT_EQ(muter.volumes().get(), volumesBefore);
    EXPECT_EQ(state->systemVolume().volume().get(), masterBefore);
  }
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
