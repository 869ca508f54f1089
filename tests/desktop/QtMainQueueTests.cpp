#include "desktop/runtime/QtMainQueue.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <QCoreApplication>

#include <thread>
#include "desktop/runtime/TerminationSignals.h"

namespace quellix {
namespace {

using std::chrono::milliseconds;

class QtMainQueueTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static int argc = 1;
    static char name[] = "qt-main-queue-tests";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
  }
};

TEST_F(QtMainQueueTest, WorkPostedFromAnotherThreadRunsOnTheMainThread) {
  QtMainQueue queue;
  const auto mainThread = std::this_thread::get_id();
  std::thread::id ranOn;
  std::thread poster([&] { queue.post([&] { ranOn = std::this_thread::get_id(); }); });
  poster.join();
  queue.runFor(milliseconds(20));
  EXPECT_EQ(ranOn, mainThread);
}

TEST_F(QtMainQueueTest, RepeatingTasksRunUntilCancelled) {
  QtMainQueue queue;
  int runs = 0;
  TaskHandle handle;
  handle = queue.every(milliseconds(1), [&] {
    if (++runs == 3) {
      handle.cancel();
    }
  });
  queue.runFor(milliseconds(60));
  EXPECT_EQ(runs, 3);
}

TEST_F(QtMainQueueTest, ATerminationSignalEndsTheEventLoopNormally) {
  quitOnTerminationSignals();
  QtMainQueue queue;
  queue.post([] { ::raise(SIGTERM); });
  // Without the handler the signal would end this test program here.
  EXPECT_EQ(QCoreApplication::exec(), 0);
}

}  // namespace
}  // namespace quellix
