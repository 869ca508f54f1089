#include "state/UpdateChecker.h"

#include <gtest/gtest.h>

#include "harness/AppStateFixture.h"
#include "support/BuildInfo.h"

namespace quellix {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::TemporaryDirectory;

TEST(UpdateCheckerVersions, ComparesNumberByNumber) {
  struct Row {
    const char* candidate;
    const char* installed;
    bool newer;
  };
  const Row rows[] = {
      {"1.2.0", "1.2", false},
      {"1.10", "1.9", true},
      {"1.2", "1.2.1", false},
      {"2.0-beta", "1.9", true},
      {"1.2-beta", "1.2", false},
      {"", "0", false},
      {"1.2.1", "1.2", true},
      {"1..2", "1.1", true},
      {"1..2", "1.2", false},
      {".1.2.", "1.2", false},
      {"1.3.", ".1.2", true},
      {"+2", "1", true},
      {"+-2", "0", false},
      {"-1", "0", false},
      {"0", "-1", true},
      {" 2", "1", false},
      {"2 ", "1", false},
      {"2b", "1", false},
      {"1.99999999999999999999", "1.1", false},
      {"9223372036854775807", "9223372036854775806", true},
      {"-9223372036854775808", "-9223372036854775807", false},
      {"1.0.0.1", "0", true},
      {"0.0.1", "0", true},
      {"0.0.-1", "0", false},
      {"0.0.0", "0", false},
      {"0", "", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(UpdateChecker::isNewer(row.candidate, row.installed), row.newer)
        << '"' << row.candidate << "\" against \"" << row.installed << '"';
  }
}

class UpdateCheckerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // An unanswered request holds the checker, which holds the client: a real client always
    // answers in the end, this one must be told to let go.
    http->pending.clear();
  }

  void answer(const std::string& version) {
    http->answer({.body = R"({"version": ")" + version + R"("})"});
  }
  const std::string defaultFeed =
      "https://" + std::string(build::kWebHost) + "/downloads/quellix-version.json";

  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  TemporaryDirectory home;
  DefaultsStore defaults{home.path() / "preferences.json", logs};
  ManualQueue queue;
  std::shared_ptr<testing::FakeHttpClient> http = std::make_shared<testing::FakeHttpClient>();
  std::shared_ptr<UpdateChecker> checker = UpdateChecker::create(queue, defaults, http, logs);
};

TEST_F(UpdateCheckerTest, TheNextCheckIsADayAfterThePreviousOneEnded) {
  checker->start();
  queue.drain();
  queue.advance(hours(1));
  answer("0");

  queue.advance(hours(23));
  EXPECT_EQ(http->requests.size(), 1u) << "a day after the check began is too early";
  queue.advance(hours(1) - milliseconds(1));
  EXPECT_EQ(http->requests.size(), 1u);
  queue.advance(milliseconds(1));
  EXPECT_EQ(http->requests.size(), 2u);

  http->answer(HttpClient::Reply{.errorDescription = "offline"});
  queue.advance(hours(24));
  EXPECT_EQ(http->requests.size(), 3u) << "a failed check does not end the loop";
}

TEST_F(UpdateCheckerTest, TheFirstCheckWaitsForTheQueueAndASecondStartStartsNothing) {
  checker->start();
  checker->start();
  EXPECT_TRUE(http->requests.empty());
  queue.drain();
  checker->start();
  queue.drain();
  EXPECT_EQ(http->requests, std::vector<std::string>{defaultFeed});
  answer("0");
  checker->start();
  queue.advance(hours(24));
  EXPECT_EQ(http->requests.size(), 2u);
  EXPECT_EQ(queue.pendingTimers(), 0u) << "only one loop waits";
}

// The loop holds the checker only weakly; a check under way holds it to its end.
TEST_F(UpdateCheckerTest, ACheckerGoneEndsItsLoopAfterTheCheckUnderWay) {
  checker->start();
  queue.drain();
  std::weak_ptr<UpdateChecker> held = checker;
  checker.reset();
  EXPECT_FALSE(held.expired());
  answer("99");
  EXPECT_EQ(logs->messages("UpdateChecker").size(), 1u) << "the answer is still taken";
  EXPECT_TRUE(held.expired());
  queue.advance(hours(72));
  EXPECT_EQ(http->requests.size(), 1u);
}

TEST_F(UpdateCheckerTest, TheFeedAddressIsReadAtEveryCheckAndOnlyAValidOneIsUsed) {
  checker->start();
  const std::string custom = "http://127.0.0.1:8080/feed.json";
  const std::vector<std::pair<std::string, std::string>> settings = {
      {custom, custom},
      {"not an address", defaultFeed},
      {"", defaultFeed},
      {"http://", defaultFeed},
      {"/downloads/feed.json", defaultFeed},
      {"https://example.org/has space", defaultFeed},
      {"https://example.org/feed.json", "https://example.org/feed.json"},
  };
  for (const auto& [setting, used] : settings) {
    SCOPED_TRACE(setting);
    defaults.set("updateFeedURL", setting);
    queue.advance(UpdateChecker::kCheckInterval);
    ASSERT_FALSE(http->requests.empty());
    EXPECT_EQ(http->requests.back(), used);
    answer("0");
  }
  defaults.set("updateFeedURL", 42);
  queue.advance(UpdateChecker::kCheckInterval);
  EXPECT_EQ(http->requests.back(), defaultFeed) << "a number is no address";
  EXPECT_TRUE(logs->messages("UpdateChecker").empty()) << "an unusable setting is silently ignored";
  EXPECT_EQ(logs->messages("Defaults").size(), 1u)
      << "a mistyped preference is the store's to report";
}

}  // namespace
}  // namespace quellix
