#include "state/UpdateChecker.h"

#include <gtest/gtest.h>

#include <deque>

#include "harness/TestSupport.h"
#include "support/BuildInfo.h"
#include "support/TextError.h"

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

TEST(UpdateCheckerFeed, TakesTheVersionTextAndNothingElse) {
  EXPECT_EQ(UpdateChecker::decodeFeed(R"({"version": "1.4.2", "url": "x", "size": 3})"), "1.4.2");
  EXPECT_EQ(UpdateChecker::decodeFeed(R"({"version": " 2.0-beta "})"), " 2.0-beta ");
  for (const std::string body : {"", "<html></html>", R"({"version": "1.2")", R"(["1.2"])",
                                 R"("1.2")", R"({"Version": "1.2"})", R"({"version": 1.2})",
                                 R"({"version": null})", R"({"version": ["1"]})"}) {
    SCOPED_TRACE(body);
    try {
      UpdateChecker::decodeFeed(body);
      ADD_FAILURE() << "decoded";
    } catch (const TextError& error) {
      EXPECT_NE(error.description().find("update feed"), std::string::npos) << error.description();
    }
  }
}

TEST(UpdateCheckerAddresses, LeadToTheWebHost) {
  EXPECT_EQ(UpdateChecker::downloadPage(),
            "https://" + std::string(build::kWebHost) +
                "/apps/quellix?utm_source=quellix&utm_medium=update");
}

// Keeps every request until the test answers it.
class FakeHttpClient final : public HttpClient {
 public:
  struct Request {
    std::string url;
    Duration timeout;
    std::function<void(Reply)> done;
  };

  void get(const std::string& url, Duration timeout, std::function<void(Reply)> done) override {
    requests.push_back(url);
    timeouts.push_back(timeout);
    pending.push_back(std::move(done));
  }

  void answer(Reply reply) {
    ASSERT_FALSE(pending.empty());
    auto done = std::move(pending.front());
    pending.pop_front();
    done(std::move(reply));
  }
  void answer(const std::string& body) { answer(Reply{.body = body}); }

  std::vector<std::string> requests;
  std::vector<Duration> timeouts;
  std::deque<std::function<void(Reply)>> pending;
};

class UpdateCheckerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // An unanswered request holds the checker, which holds the client: a real client always
    // answers in the end, this one must be told to let go.
    http->pending.clear();
  }

  std::string feedWith(const std::string& version) {
    return R"({"version": ")" + version + R"("})";
  }
  const std::string defaultFeed =
      "https://" + std::string(build::kWebHost) + "/downloads/quellix-version.json";

  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  TemporaryDirectory home;
  DefaultsStore defaults{home.path() / "preferences.json", logs};
  ManualQueue queue;
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  std::shared_ptr<UpdateChecker> checker = UpdateChecker::create(queue, defaults, http, logs);
};

TEST_F(UpdateCheckerTest, TheFirstCheckWaitsForTheQueue) {
  checker->start();
  EXPECT_TRUE(http->requests.empty());
  queue.drain();
  EXPECT_EQ(http->requests, std::vector<std::string>{defaultFeed});
  EXPECT_EQ(http->timeouts, std::vector<Duration>{UpdateChecker::kRequestTimeout});
}

TEST_F(UpdateCheckerTest, TheNextCheckIsADayAfterThePreviousOneEnded) {
  checker->start();
  queue.drain();
  queue.advance(hours(1));
  http->answer(feedWith("0"));

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

TEST_F(UpdateCheckerTest, ASecondStartStartsNothing) {
  checker->start();
  checker->start();
  queue.drain();
  checker->start();
  queue.drain();
  EXPECT_EQ(http->requests.size(), 1u);
  http->answer(feedWith("0"));
  checker->start();
  queue.advance(hours(24));
  EXPECT_EQ(http->requests.size(), 2u);
  EXPECT_EQ(queue.pendingTimers(), 0u) << "only one loop waits";
}

TEST_F(UpdateCheckerTest, ACheckerGoneBetweenChecksIsLeftAlone) {
  checker->start();
  queue.drain();
  http->answer(feedWith("0"));
  std::weak_ptr<UpdateChecker> gone = checker;
  checker.reset();
  EXPECT_TRUE(gone.expired()) << "the loop holds the checker only weakly";
  queue.advance(hours(72));
  EXPECT_EQ(http->requests.size(), 1u);
}

TEST_F(UpdateCheckerTest, ACheckUnderwayKeepsTheCheckerAliveToItsEnd) {
  checker->start();
  queue.drain();
  std::weak_ptr<UpdateChecker> held = checker;
  checker.reset();
  EXPECT_FALSE(held.expired());
  http->answer(feedWith("99"));
  EXPECT_EQ(logs->messages("UpdateChecker"),
            std::vector<std::string>{
                "Update verfügbar: 99 (installiert: " + std::string(build::kVersion) + ")"});
  EXPECT_TRUE(held.expired());
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
    http->answer(feedWith("0"));
  }
  defaults.set("updateFeedURL", 42);
  queue.advance(UpdateChecker::kCheckInterval);
  EXPECT_EQ(http->requests.back(), defaultFeed) << "a number is no address";
  EXPECT_TRUE(logs->messages("UpdateChecker").empty()) << "an unusable setting is silently ignored";
  EXPECT_EQ(logs->messages("Defaults").size(), 1u)
      << "a mistyped preference is the store's to report";
}

TEST_F(UpdateCheckerTest, AnAvailableVersionIsSetAndClearedOnlyOnChange) {
  checker->start();
  queue.drain();
  int changes = 0;
  auto subscription = checker->availableVersion().observe([&] { ++changes; });
  http->answer(feedWith("99.0"));
  queue.advance(UpdateChecker::kCheckInterval);
  http->answer(feedWith("99.0"));
  EXPECT_EQ(checker->availableVersion().get(), "99.0");
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(logs->messages().size(), 2u) << "every check that finds it says so";
  queue.advance(UpdateChecker::kCheckInterval);
  http->answer(feedWith(build::kVersion));
  queue.advance(UpdateChecker::kCheckInterval);
  http->answer(feedWith("0.1"));
  EXPECT_EQ(checker->availableVersion().get(), std::nullopt);
  EXPECT_EQ(changes, 2);
}

}  // namespace
}  // namespace quellix
