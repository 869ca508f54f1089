#include "audio/OperationRunner.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A runner on a virtual clock; each operation records its issue and waits for the test to
// answer for the server.
struct OperationRunnerTest : ::testing::Test {
  OperationRunner::Operation operation(const std::string& name, bool replaceable = false) {
    return {name,
            [this, name](OperationRunner::Finish finish) {
              issued.push_back(name);
              answers[name] = std::move(finish);
              return OperationRunner::InFlight(requests[name] = std::make_shared<int>());
            },
            [this, name] { rereads.push_back(name); }, replaceable};
  }

  OperationRunner::Clock::time_point now{};
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  OperationRunner runner{2000ms, [this] { return now; }, Logger(logs, "Ops")};
  Lines issued, rereads;
  std::map<std::string, OperationRunner::Finish> answers;
  std::map<std::string, std::shared_ptr<int>> requests;
};

TEST_F(OperationRunnerTest, LanesKeepTheirOrderAndEveryFailureLogsOnceAndRereads) {
  for (const char* name : {"create", "start IO", "destroy"}) {
    runner.submit("tap", operation(name));
  }
  for (const char* value : {"10%", "20%", "30%"}) {
    runner.submit("volume", operation(value, true));
  }
  answers["create"](true);
  answers["start IO"](false);
  answers["10%"](true);
  EXPECT_EQ(issued, (Lines{"create", "10%", "start IO", "destroy", "30%"}));
  now += 1999ms;
  runner.expire();
  EXPECT_EQ(logs->messages().size(), 1u) << "nothing times out before its time";
  now += 1ms;
  runner.expire();
  EXPECT_EQ(requests["destroy"].use_count(), 1) << "a request that timed out is abandoned";
  answers["destroy"](true);  // the server wakes up after all
  EXPECT_EQ(logs->messages(),
            (Lines{"start IO failed: the sound server refused it",
                   "destroy failed: no answer from the sound server within 2000 ms",
                   "30% failed: no answer from the sound server within 2000 ms"}));

  runner.submit("tap", operation("again"));
  runner.submit("tap", operation("and again"));
  runner.failAll("gone");
  EXPECT_EQ(rereads, (Lines{"start IO", "destroy", "30%", "again", "and again"}));
}

}  // namespace
}  // namespace quellix
