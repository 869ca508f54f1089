#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "desktop/runtime/HttpClient.h"
#include "support/DefaultsStore.h"
#include "support/Logger.h"
#include "support/MainQueue.h"
#include "support/Observable.h"

namespace quellix {

// Finds out once at start and then once a day whether a newer version has been published.
// Main thread only.
class UpdateChecker : public std::enable_shared_from_this<UpdateChecker> {
 public:
  static constexpr Duration kCheckInterval = std::chrono::hours(24);
  static constexpr Duration kRequestTimeout = std::chrono::seconds(15);

  // `requestTimeout` is there for tests, which cannot wait 15 seconds for a silent server.
  static std::shared_ptr<UpdateChecker> create(MainQueue& queue, DefaultsStore& defaults,
                                               std::shared_ptr<HttpClient> http,
                                               std::shared_ptr<LogSink> logs,
                                               Duration requestTimeout = kRequestTimeout);

  static const std::string& downloadPage();
  static bool isNewer(std::string_view candidate, std::string_view installed);
  // The feed's `version`; throws TextError when the body is not the feed object.
  static std::string decodeFeed(std::string_view body);

  const Observable<std::optional<std::string>>& availableVersion() const {
    return availableVersion_;
  }

  // Starts the daily check unless it runs already; the first check follows as soon as the
  // queue runs.
  void start();

 private:
  UpdateChecker(MainQueue& queue, DefaultsStore& defaults, std::shared_ptr<HttpClient> http,
                std::shared_ptr<LogSink> logs, Duration requestTimeout);

  struct Loop;
  static void runLoop(const std::shared_ptr<Loop>& loop);

  std::string feedURL() const;
  // Fetches and compares; `done` runs when the check is over, whatever its outcome.
  void check(std::function<void()> done);
  void finishCheck(const HttpClient::Reply& reply);

  Observable<std::optional<std::string>> availableVersion_;
  Logger logger_;
  TaskHandle loop_;

  MainQueue& queue_;
  DefaultsStore& defaults_;
  std::shared_ptr<HttpClient> http_;
  Duration requestTimeout_;
};

}  // namespace quellix
