#include <gtest/gtest.h>

#include <QCoreApplication>

#include <chrono>
#include <functional>

#include "desktop/runtime/QtMainQueue.h"
#include "harness/LoopbackHttpServer.h"
#include "harness/TestSupport.h"
#include "state/UpdateChecker.h"
#include "support/BuildInfo.h"

namespace quellix {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::LoopbackHttpServer;
using testing::TemporaryDirectory;

constexpr Duration kShortTimeout = milliseconds(300);

// Qt's event loop for everything but the day-long wait between checks, which the test ends
// when it wants the next check.
class DaylessQueue final : public MainQueue {
 public:
  void post(std::function<void()> work) override { loop.post(std::move(work)); }
  TaskHandle schedule(Duration, std::optional<Duration>, std::function<void()> work) override {
    waiting.push_back(std::move(work));
    return TaskHandle(std::make_shared<std::atomic<bool>>(false));
  }
  TimePoint now() const override { return loop.now(); }
  void runFor(Duration duration) override { loop.runFor(duration); }

  void endTheDay() {
    for (auto& work : std::exchange(waiting, {})) {
      loop.post(std::move(work));
    }
  }

  QtMainQueue loop;
  std::vector<std::function<void()>> waiting;
};

// The real client, counting the replies it has handed on.
class CountingHttpClient final : public HttpClient {
 public:
  void get(const std::string& url, Duration timeout, std::function<void(Reply)> done) override {
    inner->get(url, timeout, [this, done = std::move(done)](Reply reply) {
      done(std::move(reply));
      ++finished;
    });
  }

  std::shared_ptr<HttpClient> inner = makeQtHttpClient();
  int finished = 0;
};

class UpdateCheckerNetworkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static int argc = 1;
    static char name[] = "update-checker-tests";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
  }

  bool runUntil(const std::function<bool()>& condition, Duration limit = seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      queue.runFor(milliseconds(5));
    }
    return true;
  }

  // Runs one check to its end.
  void runOneCheck() {
    const int before = http->finished;
    logs->clear();
    if (!started) {
      checker->start();
      started = true;
    } else {
      queue.endTheDay();
    }
    ASSERT_TRUE(runUntil([&] { return http->finished == before + 1; }));
  }

  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  DaylessQueue queue;
  TemporaryDirectory home;
  DefaultsStore defaults{home.path() / "preferences.json", logs};
  LoopbackHttpServer server;
  std::shared_ptr<CountingHttpClient> http = std::make_shared<CountingHttpClient>();
  std::shared_ptr<UpdateChecker> checker =
      UpdateChecker::create(queue, defaults, http, logs, kShortTimeout);
  bool started = false;
};

// A newer version is shown until a feed says otherwise; a failed check, whatever the cause, is
// logged once and keeps the earlier result.
TEST_F(UpdateCheckerNetworkTest, EachFeedDecidesTheShownVersionAndAFailureKeepsIt) {
  const std::string feed = server.url("/feed.json");
  const std::string refused =
      "http://127.0.0.1:" + std::to_string(LoopbackHttpServer::closedPort()) + "/feed.json";
  server.stayQuiet("/silent");
  const std::optional<std::string> newer = "9.9.9";
  struct Check {
    const char* what;
    std::string address;
    int status;
    std::string body;
    std::optional<std::string> shown;
    std::string logged;  // what the one log line says, if any
  };
  const Check checks[] = {
      {"newer", feed, 200, R"({"version": "9.9.9", "notes": "ignored"})", newer, "9.9.9"},
      {"refused connection", refused, 200, "", newer, "refused"},
      {"error page", feed, 404, "<html><body><h1>Not Found</h1></body></html>", newer,
       "not valid JSON"},
      {"malformed JSON", feed, 200, R"({"version": "9.9.)", newer, "not valid JSON"},
      {"no version", feed, 200, R"({"release": "9.9.9"})", newer, "no member \"version\""},
      {"version a number", feed, 200, R"({"version": 10})", newer, "not a string"},
      {"silent server", server.url("/silent"), 200, "", newer, "timed out"},
      {"the installed version", feed, 200,
       R"({"version": ")" + std::string(build::kVersion) + R"("})", std::nullopt, ""},
      {"newer again", feed, 200, R"({"version": "9.9.9"})", newer, "9.9.9"},
      {"older", feed, 200, R"({"version": "0.0.1"})", std::nullopt, ""},
  };
  int changes = 0;
  auto subscription = checker->availableVersion().observe([&] { ++changes; });
  for (const Check& check : checks) {
    SCOPED_TRACE(check.what);
    defaults.set("updateFeedURL", check.address);
    server.respond("/feed.json", check.status, "application/json", check.body);
    const auto begin = std::chrono::steady_clock::now();
    runOneCheck();
    EXPECT_EQ(checker->availableVersion().get(), check.shown);
    const auto messages = logs->messages("UpdateChecker");
    ASSERT_EQ(messages.size(), check.logged.empty() ? 0u : 1u);
    if (!check.logged.empty()) {
      EXPECT_NE(messages[0].find(check.logged), std::string::npos) << messages[0];
    }
    if (check.address == server.url("/silent")) {
      // Qt's transfer timer is a coarse one, which may fire up to 5 % early.
      EXPECT_GE(std::chrono::steady_clock::now() - begin, kShortTimeout * 9 / 10);
    }
  }
  EXPECT_EQ(changes, 4) << "only a different version is a change";
  for (const std::string& request : server.requests()) {
    EXPECT_EQ(request.rfind("GET /", 0), 0u) << request;
    EXPECT_NE(request.find("\r\nCache-Control: no-cache"), std::string::npos)
        << "no cached copy may answer";
  }
}

TEST_F(UpdateCheckerNetworkTest, ASilentServerDoesNotHoldUpTheQueue) {
  defaults.set("updateFeedURL", server.url("/silent"));
  server.stayQuiet("/silent");
  checker->start();
  bool otherWorkRan = false;
  queue.post([&] { otherWorkRan = true; });
  ASSERT_TRUE(runUntil([&] { return otherWorkRan; }, milliseconds(200)));
  EXPECT_EQ(http->finished, 0) << "the posted work ran while the check was waiting";
  ASSERT_TRUE(runUntil([&] { return http->finished == 1; }));
}

// The error page row above shows that any body is handed on.
TEST_F(UpdateCheckerNetworkTest, TheClientRefusesAnInvalidAddressLater) {
  std::optional<HttpClient::Reply> reply;
  for (const std::string address : {"", "no address", "http://", "http://[::1"}) {
    SCOPED_TRACE(address);
    reply.reset();
    http->get(address, seconds(5), [&](HttpClient::Reply r) { reply = r; });
    EXPECT_FALSE(reply.has_value()) << "replies never arrive inside get()";
    ASSERT_TRUE(runUntil([&] { return reply.has_value(); }));
    EXPECT_FALSE(reply->body.has_value());
    EXPECT_FALSE(reply->errorDescription.empty());
  }
}

}  // namespace
}  // namespace quellix
