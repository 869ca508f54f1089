#include "audio/OperationRunner.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

using namespace std::chrono_literals;

// A runner on a virtual clock whose operations record when they are issued and hold their
// Finish until the test answers for the server.
class OperationRunnerTest : public ::testing::Test {
 protected:
  OperationRunner::Operation operation(const std::string& name, bool replaceable = false) {
    return {name,
            [this, name](OperationRunner::Finish finish) {
              issued.push_back(name);
              answers[name] = std::move(finish);
              auto inFlight = std::make_shared<int>(0);
              requests[name] = inFlight;
              return OperationRunner::InFlight(inFlight);
            },
            [this, name] { rereads.push_back(name); }, replaceable};
  }
  void answer(const std::string& name, bool succeeded) { answers.at(name)(succeeded); }

  OperationRunner::Clock::time_point now{};
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  OperationRunner runner{2000ms, [this] { return now; }, Logger(logs, "Ops")};
  std::vector<std::string> issued;
  std::vector<std::string> rereads;
  std::map<std::string, OperationRunner::Finish> answers;
  std::map<std::string, std::weak_ptr<int>> requests;
};

TEST_F(OperationRunnerTest, LaneRunsInOrderWhileOtherLanesProceed) {
  runner.submit("tap 1", operation("create"));
  runner.submit("tap 1", operation("start IO"));
  runner.submit("tap 1", operation("destroy"));
  runner.submit("volume", operation("volume"));
  EXPECT_EQ(issued, (std::vector<std::string>{"create", "volume"}));
  answer("create", true);
  answer("start IO", false);
  answer("destroy", true);
  EXPECT_EQ(issued, (std::vector<std::string>{"create", "volume", "start IO", "destroy"}));
  EXPECT_EQ(logs->messages(),
            (std::vector<std::string>{"start IO failed: the sound server refused it"}));
  EXPECT_EQ(rereads, (std::vector<std::string>{"start IO"}));
  EXPECT_EQ(runner.pendingCount(), 1u);
}

TEST_F(OperationRunnerTest, TimeOutFailsOnceAbandonsTheRequestAndIgnoresALateAnswer) {
  runner.submit("mute", operation("mute"));
  runner.submit("mute", operation("unmute"));
  now += 1999ms;
  runner.expire();
  EXPECT_TRUE(logs->messages().empty());
  EXPECT_EQ(runner.nextDeadline(), OperationRunner::Clock::time_point{} + 2000ms);
  now += 1ms;
  runner.expire();
  EXPECT_TRUE(requests["mute"].expired());
  answer("mute", true);  // the server wakes up after all
  answer("unmute", true);
  runner.expire();
  EXPECT_EQ(
      logs->messages(),
      (std::vector<std::string>{"mute failed: no answer from the sound server within 2000 ms"}));
  EXPECT_EQ(rereads, (std::vector<std::string>{"mute"}));
  EXPECT_EQ(runner.pendingCount(), 0u);
  EXPECT_FALSE(runner.nextDeadline());
}

TEST_F(OperationRunnerTest, WaitingReplaceableOperationTakesOnlyTheLatestValue) {
  for (const char* value : {"10%", "20%", "30%", "40%"}) {
    runner.submit("volume", operation(value, true));
  }
  runner.submit("volume", operation("mute"));
  runner.submit("volume", operation("50%", true));
  answer("10%", true);
  answer("40%", true);
  answer("mute", true);
  EXPECT_EQ(issued, (std::vector<std::string>{"10%", "40%", "mute", "50%"}));
}

TEST_F(OperationRunnerTest, LostConnectionFailsIssuedAndWaitingOperationsWithOneLineEach) {
  runner.submit("tap 1", operation("create"));
  runner.submit("tap 1", operation("destroy"));
  runner.submit("volume", operation("volume"));
  runner.failAll("the connection is gone");
  EXPECT_EQ(logs->messages().size(), 3u);
  EXPECT_EQ(rereads.size(), 3u);
  EXPECT_EQ(runner.pendingCount(), 0u);
  EXPECT_TRUE(requests["create"].expired());
}

TEST_F(OperationRunnerTest, OperationFinishedWhileIssuedLetsTheNextOneStart) {
  runner.submit("io", {"start at once", [](OperationRunner::Finish finish) {
                         finish(true);
                         return OperationRunner::InFlight();
                       }});
  runner.submit("io", operation("after"));
  EXPECT_EQ(issued, (std::vector<std::string>{"after"}));
  EXPECT_TRUE(logs->messages().empty());
}

}  // namespace
}  // namespace quellix
