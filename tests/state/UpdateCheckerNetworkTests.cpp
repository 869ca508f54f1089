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
constexpr const char* kSkipped = "Update-Check übersprungen: ";

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

  // Serves `body` as the feed and runs one check to its end.
  void checkAgainst(int status, const std::string& contentType, const std::string& body) {
    server.respond("/feed.json", status, contentType, body);
    runOneCheck();
  }
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

TEST_F(UpdateCheckerNetworkTest, ANewerVersionIsShownUntilAFeedIsNoLongerNewer) {
  defaults.set("updateFeedURL", server.url("/feed.json"));
  const std::string installed = build::kVersion;

  checkAgainst(200, "application/json", R"({"version": "9.9.9", "notes": "ignored"})");
  EXPECT_EQ(checker->availableVersion().get(), "9.9.9");
  EXPECT_EQ(logs->messages("UpdateChecker"),
            std::vector<std::string>{"Update verfügbar: 9.9.9 (installiert: " + installed + ")"});
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].rfind("GET /feed.json HTTP/1.1\r\n", 0), 0u)
      << server.requests()[0];
  EXPECT_NE(server.requests()[0].find("\r\nCache-Control: no-cache"), std::string::npos)
      << "no cached copy may answer";

  checkAgainst(200, "application/json", R"({"version": ")" + installed + R"("})");
  EXPECT_EQ(checker->availableVersion().get(), std::nullopt)
      << "the installed version is not newer";
  EXPECT_TRUE(logs->messages().empty());

  checkAgainst(200, "application/json", R"({"version": "9.9.9"})");
  checkAgainst(200, "text/plain", R"({"version": "0.0.1"})");
  EXPECT_EQ(checker->availableVersion().get(), std::nullopt) << "an older version is not newer";
}

TEST_F(UpdateCheckerNetworkTest, AFailedCheckIsLoggedAndKeepsTheEarlierResult) {
  defaults.set("updateFeedURL", server.url("/feed.json"));
  checkAgainst(200, "application/json", R"({"version": "9.9.9"})");

  const std::string refused =
      "http://127.0.0.1:" + std::to_string(LoopbackHttpServer::closedPort()) + "/feed.json";
  struct Failure {
    std::string what;
    std::function<void()> arrange;
    std::string descriptionContains;
  };
  const std::vector<Failure> failures = {
      {"refused connection", [&] { defaults.set("updateFeedURL", refused); }, "refused"},
      {"error page",
       [&] {
         defaults.set("updateFeedURL", server.url("/feed.json"));
         server.respond("/feed.json", 404, "text/html",
                        "<html><body><h1>Not Found</h1></body></html>");
       },
       "not valid JSON"},
      {"malformed JSON",
       [&] { server.respond("/feed.json", 200, "application/json", R"({"version": "9.9.)"); },
       "not valid JSON"},
      {"no version",
       [&] { server.respond("/feed.json", 200, "application/json", R"({"release": "9.9.9"})"); },
       "no member \"version\""},
      {"version a number",
       [&] { server.respond("/feed.json", 200, "application/json", R"({"version": 10})"); },
       "not a string"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.what);
    failure.arrange();
    runOneCheck();
    const auto messages = logs->messages("UpdateChecker");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].rfind(kSkipped, 0), 0u) << messages[0];
    EXPECT_NE(messages[0].find(failure.descriptionContains), std::string::npos) << messages[0];
    EXPECT_EQ(checker->availableVersion().get(), "9.9.9");
  }
}

TEST_F(UpdateCheckerNetworkTest, ASilentServerEndsInTheTimeOutWithoutHoldingUpTheQueue) {
  defaults.set("updateFeedURL", server.url("/silent"));
  server.stayQuiet("/silent");
  const auto begin = std::chrono::steady_clock::now();
  checker->start();
  bool otherWorkRan = false;
  queue.post([&] { otherWorkRan = true; });
  ASSERT_TRUE(runUntil([&] { return otherWorkRan; }, milliseconds(200)));
  EXPECT_EQ(http->finished, 0) << "the posted work ran while the check was waiting";

  ASSERT_TRUE(runUntil([&] { return http->finished == 1; }));
  // Qt's transfer timer is a coarse one, which may fire up to 5 % early.
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kShortTimeout * 9 / 10);
  EXPECT_EQ(logs->messages("UpdateChecker"),
            std::vector<std::string>{std::string(kSkipped) + "The request timed out."});
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(UpdateCheckerNetworkTest, TheClientHandsOnAnyBodyAndRefusesAnInvalidAddressLater) {
  server.respond("/missing", 404, "text/html", "<p>gone</p>");
  std::optional<HttpClient::Reply> reply;
  http->get(server.url("/missing"), seconds(5), [&](HttpClient::Reply r) { reply = r; });
  ASSERT_TRUE(runUntil([&] { return reply.has_value(); }));
  EXPECT_EQ(reply->body, "<p>gone</p>");

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
