#include "support/Observable.h"

#include <gtest/gtest.h>

#include <string>

namespace quellix {
namespace {

TEST(Observable, NotifiesOnlyWhenTheValueDiffers) {
  Observable<int> value(1);
  int notifications = 0;
  auto subscription = value.observe([&] { ++notifications; });
  EXPECT_FALSE(value.set(1));
  EXPECT_TRUE(value.set(2));
  EXPECT_FALSE(value.modify([](int& v) { v = 2; }));
  EXPECT_TRUE(value.modify([](int& v) { ++v; }));
  EXPECT_EQ(notifications, 2);
  EXPECT_EQ(value.get(), 3);

  subscription.cancel();
  value.set(4);
  EXPECT_EQ(notifications, 2);
}

TEST(Observable, TrackingCallsOnceForTheFirstChangeOfAnyValueRead) {
  Observable<int> read(0);
  Observable<std::string> alsoRead("a");
  Observable<bool> notRead(false);
  int calls = 0;
  withObservationTracking(
      [&] {
        (void)read.get();
        (void)alsoRead.get();
        (void)read.get();
      },
      [&] { ++calls; });

  notRead.set(true);
  EXPECT_EQ(calls, 0);
  alsoRead.set("b");
  EXPECT_EQ(calls, 1);
  read.set(5);
  alsoRead.set("c");
  EXPECT_EQ(calls, 1);
}

TEST(Observable, TrackingCanBeRenewedFromItsOwnCallback) {
  Observable<int> value(0);
  int renders = 0;
  std::function<void()> render = [&] {
    withObservationTracking(
        [&] {
          (void)value.get();
          ++renders;
        },
        [&] { render(); });
  };
  render();
  value.set(1);
  value.set(1);
  value.set(2);
  EXPECT_EQ(renders, 3);
}

TEST(Observable, ASubscriptionOutlivingItsValueIsHarmless) {
  Subscription subscription;
  {
    Observable<int> value(0);
    subscription = value.observe([] {});
  }
  subscription.cancel();
}

}  // namespace
}  // namespace quellix
