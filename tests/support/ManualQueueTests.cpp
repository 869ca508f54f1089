#include "support/ManualQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace quellix {
namespace {

using std::chrono::seconds;

TEST(ManualQueue, RunsARepeatingTaskOncePerIntervalOfVirtualTimeUntilCancelled) {
  ManualQueue queue;
  int runs = 0;
  TaskHandle handle = queue.every(seconds(10), [&] { ++runs; });
  queue.advance(seconds(100));
  EXPECT_EQ(runs, 10);
  EXPECT_EQ(queue.now(), TimePoint(seconds(100)));
  handle.cancel();
  queue.advance(seconds(50));
  EXPECT_EQ(runs, 10);
  EXPECT_EQ(queue.pendingTimers(), 0u);
}

TEST(ManualQueue, RunsDueTasksInTimeOrderWithTheClockAtTheirDueTime) {
  ManualQueue queue;
  std::vector<std::pair<int, TimePoint>> runs;
  queue.after(seconds(3), [&] { runs.emplace_back(3, queue.now()); });
  queue.after(seconds(1), [&] { runs.emplace_back(1, queue.now()); });
  queue.post([&] { runs.emplace_back(0, queue.now()); });
  queue.advance(seconds(2));
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[0].first, 0);
  EXPECT_EQ(runs[1], std::make_pair(1, TimePoint(seconds(1))));
  queue.advance(seconds(1));
  EXPECT_EQ(runs.back(), std::make_pair(3, TimePoint(seconds(3))));
}

TEST(ManualQueue, WeakTasksDoNothingOnceTheirOwnerIsGone) {
  struct Owner {
    int runs = 0;
  };
  ManualQueue queue;
  auto owner = std::make_shared<Owner>();
  queue.everyWeak(seconds(1), owner, [](Owner& o) { ++o.runs; });
  queue.postWeak(owner, [](Owner& o) { ++o.runs; });
  queue.advance(seconds(2));
  EXPECT_EQ(owner->runs, 3);
  std::weak_ptr<Owner> weakOwner = owner;
  owner.reset();
  queue.advance(seconds(2));
  EXPECT_TRUE(weakOwner.expired());
}

TEST(ManualQueue, WorkPostedByWorkRunsInTheSameDrain) {
  ManualQueue queue;
  int runs = 0;
  queue.post([&] { queue.post([&] { ++runs; }); });
  EXPECT_EQ(queue.drain(), 2u);
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace quellix
