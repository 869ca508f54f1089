#include "audio/pulse/HeldLatency.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 5ms;

void pass(HeldLatency& held, std::chrono::microseconds duration) {
  for (auto elapsed = std::chrono::microseconds(0); elapsed < duration; elapsed += kTick) {
    held.onTick();
  }
}

TEST(HeldLatencyTests, OnlyUnderrunsThatFollowEachOtherRaiseTheLatency) {
  HeldLatency held(20ms, kTick);
  // A stall and the server catching up after it.
  EXPECT_FALSE(held.onUnderrun());
  pass(held, 10ms);
  EXPECT_FALSE(held.onUnderrun());
  EXPECT_EQ(held.heldMs(), 20);
  // The same again long after: still a stall.
  pass(held, 11s);
  EXPECT_FALSE(held.onUnderrun());
  EXPECT_EQ(held.heldMs(), 20);
  pass(held, 2s);
  EXPECT_FALSE(held.onUnderrun());
  // A third within the span of the one two before.
  pass(held, 1s);
  EXPECT_TRUE(held.onUnderrun());
  EXPECT_EQ(held.heldMs(), 25);
  pass(held, 100ms);
  EXPECT_TRUE(held.onUnderrun());
  EXPECT_EQ(held.heldMs(), 30);
}

TEST(HeldLatencyTests, AtTheLimitTheReadingsExcessIsDiscountedUpToItsOwnLimit) {
  HeldLatency held(20ms, kTick);
  for (int underrun = 0; underrun < 100; ++underrun) {
    held.onUnderrun();
    pass(held, 20ms);
  }
  EXPECT_EQ(held.heldMs(), 60);
  EXPECT_EQ(held.readingExcessMs(), 100);
  EXPECT_FALSE(held.onUnderrun());
}

TEST(HeldLatencyTests, AQuietStretchGivesTheExcessBackFirstThenTheLatencyDownToTheTarget) {
  HeldLatency held(20ms, kTick);
  // Up to the held limit and one step of excess.
  for (int underrun = 0; underrun < 11; ++underrun) {
    held.onUnderrun();
  }
  ASSERT_EQ(held.heldMs(), 60);
  ASSERT_EQ(held.readingExcessMs(), 5);
  // An underrun restarts the quiet stretch.
  pass(held, 29s);
  held.onUnderrun();
  pass(held, 29s);
  EXPECT_EQ(held.readingExcessMs(), 5);
  pass(held, 1s);
  EXPECT_EQ(held.readingExcessMs(), 0);
  EXPECT_EQ(held.heldMs(), 60);
  pass(held, 30s);
  EXPECT_EQ(held.heldMs(), 55);
  pass(held, 10min);
  EXPECT_EQ(held.heldMs(), 20);
}

TEST(HeldLatencyTests, ALatencyTakenAgainSoonAfterItWasGivenBackIsKeptTwiceAsLong) {
  HeldLatency held(20ms, kTick);
  auto raise = [&] {
    for (int underrun = 0; underrun < 3; ++underrun) {
      held.onUnderrun();
      pass(held, 10ms);
    }
  };
  raise();
  ASSERT_EQ(held.heldMs(), 25);
  pass(held, 30s);
  ASSERT_EQ(held.heldMs(), 20);
  pass(held, 20s);
  raise();
  EXPECT_EQ(held.heldMs(), 25);
  pass(held, 59s);
  EXPECT_EQ(held.heldMs(), 25);
  pass(held, 1s);
  EXPECT_EQ(held.heldMs(), 20);
  // Taken again only after the wait: the next one is as long.
  pass(held, 2min);
  raise();
  pass(held, 60s);
  EXPECT_EQ(held.heldMs(), 20);
}

}  // namespace
}  // namespace quellix
