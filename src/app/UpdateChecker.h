#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/qt/HttpClient.h"
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

  static std::shared_ptr<UpdateChecker> create(MainQueue& queue, DefaultsStore& defaults,
                                               std::shared_ptr<HttpClient> http);

  static const std::string& downloadPage();
  static bool isNewer(std::string_view candidate, std::string_view installed);
  // The feed's `version`; throws TextError when the body is not the feed object.
  static std::string decodeFeed(std::string_view body);

  const Observable<std::optional<std::string>>& availableVersion() const {
    return availableVersion_;
  }

  void start();

 private:
  Observable<std::optional<std::string>> availableVersion_;
  Logger logger_{"UpdateChecker"};
};

}  // namespace quellix
