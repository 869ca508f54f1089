#include "state/AppState.h"

#include <gtest/gtest.h>

#include "harness/AppStateFixture.h"

namespace quellix {
namespace {

class AppStateStartUpTest : public testing::AppStateTest {};

TEST_F(AppStateStartUpTest, TheFirstApplicationListAlreadyReachesTheMuteController) {
  addPlayingApp(100, "org.example.Music", "Music");
  defaults->set("mutedBundleIDs", nlohmann::json::array({"org.example.Music"}));
  defaults->set("onboardingCompleted", true);

  AppState& app = start();
  ASSERT_EQ(app.monitor().apps().get().size(), 1u);
  EXPECT_TRUE(app.muter().hasTap("org.example.Music"))
      << "a choice from an earlier run is applied to the very first list";
  EXPECT_EQ(app.muter().activeMuteCount(), 1);
  EXPECT_EQ(http->requests.size(), 1u) << "the first update check starts with the queue";
}

TEST_F(AppStateStartUpTest, OnboardingOpensAfterTheDelayOnlyWhenNeitherMovedNorCompleted) {
  struct Case {
    const char* name;
    bool moved;
    bool completed;
    bool shown;
  };
  for (const Case& c :
       {Case{"first start", false, false, true}, Case{"completed before", false, true, false},
        Case{"moved into place", true, false, false}}) {
    SCOPED_TRACE(c.name);
    defaults->set("onboardingCompleted", c.completed);
    std::vector<std::string> order;
    offerMove = [&] {
      order.emplace_back("move offered");
      return c.moved;
    };
    onboardingBuilds = 0;
    start();
    EXPECT_EQ(order.size(), 1u);
    EXPECT_EQ(onboardingBuilds, 0) << "nothing before the delay";
    queue.advance(AppState::kOnboardingDelay);
    EXPECT_EQ(onboardingBuilds, c.shown ? 1 : 0);
    EXPECT_EQ(state->windows().window("onboarding") != nullptr, c.shown);
    state.reset();
  }
}

TEST_F(AppStateStartUpTest, AnApplicationStateGoneBeforeTheDelayShowsNothing) {
  start();
  state.reset();
  queue.advance(AppState::kOnboardingDelay);
  EXPECT_EQ(onboardingBuilds, 0);
}

TEST_F(AppStateStartUpTest, FinishingTheOnboardingRecordsItAndForgetsTheWindow) {
  start();
  queue.advance(AppState::kOnboardingDelay);
  ASSERT_NE(state->windows().window("onboarding"), nullptr);
  EXPECT_EQ(*openWindows, 1);

  onboardingClose();
  EXPECT_TRUE(defaults->boolean("onboardingCompleted"));
  EXPECT_EQ(state->windows().window("onboarding"), nullptr);
  EXPECT_EQ(*openWindows, 0);

  state->showOnboarding();
  EXPECT_EQ(onboardingBuilds, 2) << "a forgotten window is built anew";
}

TEST_F(AppStateStartUpTest, LaunchAtLoginShowsWhatTheSystemReportsAfterEachAttempt) {
  loginItem->status_ = LoginItemStatus::enabled;
  start();
  EXPECT_TRUE(state->launchAtLogin().get());

  state->setLaunchAtLogin(false);
  EXPECT_FALSE(state->launchAtLogin().get());
  EXPECT_TRUE(logs->messages("AppState").empty());

  loginItem->fails = true;
  state->setLaunchAtLogin(true);
  EXPECT_FALSE(state->launchAtLogin().get()) << "a refused registration springs back";
  EXPECT_EQ(logs->messages("AppState").size(), 1u);

  loginItem->statusAfterFailure = LoginItemStatus::enabled;
  state->setLaunchAtLogin(false);
  EXPECT_TRUE(state->launchAtLogin().get())
      << "a failed unregistration leaves whatever the system then reports";
  EXPECT_EQ(logs->messages("AppState").size(), 2u);
}

TEST_F(AppStateStartUpTest, ApprovalStillPendingCountsAsOff) {
  loginItem->status_ = LoginItemStatus::requiresApproval;
  start();
  EXPECT_FALSE(state->launchAtLogin().get());
}

}  // namespace
}  // namespace quellix
