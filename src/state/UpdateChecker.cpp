#include "state/UpdateChecker.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/BuildInfo.h"
#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kFeedKey = "updateFeedURL";

std::string webAddress(std::string_view pathAndQuery) {
  return "https://" + std::string(build::kWebHost) + std::string(pathAndQuery);
}

const std::string& defaultFeed() {
  static const std::string address = webAddress("/downloads/quellix-version.json");
  return address;
}

// An optional sign and digits only, in range; anything else counts as 0.
std::int64_t versionPart(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') {
      return 0;
    }
  }
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) {
    return 0;
  }
  return value;
}

std::vector<std::int64_t> versionParts(std::string_view version) {
  std::vector<std::int64_t> parts;
  while (!version.empty()) {
    const auto dot = version.find('.');
    const auto part = version.substr(0, dot);
    if (!part.empty()) {
      parts.push_back(versionPart(part));
    }
    if (dot == std::string_view::npos) {
      break;
    }
    version.remove_prefix(dot + 1);
  }
  return parts;
}

// nlohmann's messages start with "[json.exception.parse_error.101] ", which says nothing to a
// reader of the log.
std::string withoutExceptionTag(const std::string& message) {
  if (!message.empty() && message.front() == '[') {
    if (const auto close = message.find("] "); close != std::string::npos) {
      return message.substr(close + 2);
    }
  }
  return message;
}

}  // namespace

// The periodic task: it holds the checker only weakly, and lives on while the process does.
struct UpdateChecker::Loop {
  MainQueue& queue;
  std::weak_ptr<UpdateChecker> checker;
  TaskHandle handle;
};

std::shared_ptr<UpdateChecker> UpdateChecker::create(MainQueue& queue, DefaultsStore& defaults,
                                                     std::shared_ptr<HttpClient> http,
                                                     std::shared_ptr<LogSink> logs,
                                                     Duration requestTimeout) {
  return std::shared_ptr<UpdateChecker>(
      new UpdateChecker(queue, defaults, std::move(http), std::move(logs), requestTimeout));
}

UpdateChecker::UpdateChecker(MainQueue& queue, DefaultsStore& defaults,
                             std::shared_ptr<HttpClient> http, std::shared_ptr<LogSink> logs,
                             Duration requestTimeout)
    : logger_(std::move(logs), "UpdateChecker"),
      queue_(queue),
      defaults_(defaults),
      http_(std::move(http)),
      requestTimeout_(requestTimeout) {}

const std::string& UpdateChecker::downloadPage() {
  static const std::string address =
      webAddress("/apps/quellix?utm_source=quellix&utm_medium=update");
  return address;
}

bool UpdateChecker::isNewer(std::string_view candidate, std::string_view installed) {
  const auto candidateParts = versionParts(candidate);
  const auto installedParts = versionParts(installed);
  const std::size_t length = std::max(candidateParts.size(), installedParts.size());
  for (std::size_t i = 0; i < length; ++i) {
    const std::int64_t offered = i < candidateParts.size() ? candidateParts[i] : 0;
    const std::int64_t have = i < installedParts.size() ? installedParts[i] : 0;
    if (offered != have) {
      return offered > have;
    }
  }
  return false;
}

std::string UpdateChecker::decodeFeed(std::string_view body) {
  nlohmann::json feed;
  try {
    feed = nlohmann::json::parse(body);
  } catch (const nlohmann::json::exception& error) {
    throw TextError("The update feed is not valid JSON: " + withoutExceptionTag(error.what()));
  }
  if (!feed.is_object()) {
    throw TextError("The update feed is not a JSON object.");
  }
  const auto version = feed.find("version");
  if (version == feed.end()) {
    throw TextError("The update feed has no member \"version\".");
  }
  if (!version->is_string()) {
    throw TextError("The update feed's member \"version\" is not a string.");
  }
  return version->get<std::string>();
}

void UpdateChecker::start() {
  if (loop_.isValid()) {
    return;
  }
  loop_ = TaskHandle(std::make_shared<std::atomic<bool>>(false));
  auto loop = std::make_shared<Loop>(Loop{queue_, weak_from_this(), loop_});
  queue_.post([loop] { runLoop(loop); });
}

void UpdateChecker::runLoop(const std::shared_ptr<Loop>& loop) {
  if (loop->handle.isCancelled()) {
    return;
  }
  // The next check is a day after this one ends, however long the network took.
  auto sleep = [loop] { loop->queue.after(kCheckInterval, [loop] { runLoop(loop); }); };
  if (auto checker = loop->checker.lock()) {
    checker->check(std::move(sleep));
  } else {
    sleep();
  }
}

std::string UpdateChecker::feedURL() const {
  if (auto configured = defaults_.string(kFeedKey); configured && isWebAddress(*configured)) {
    return *configured;
  }
  return defaultFeed();
}

void UpdateChecker::check(std::function<void()> done) {
  // The reply holds the checker, so a check that has begun always ends.
  http_->get(feedURL(), requestTimeout_,
             [self = shared_from_this(), done = std::move(done)](HttpClient::Reply reply) {
               self->finishCheck(reply);
               done();
             });
}

void UpdateChecker::finishCheck(const HttpClient::Reply& reply) {
  if (!reply.body) {
    logger_.info("Update-Check übersprungen: " + reply.errorDescription);
    return;
  }
  std::string offered;
  try {
    offered = decodeFeed(*reply.body);
  } catch (const TextError& error) {
    logger_.info("Update-Check übersprungen: " + error.description());
    return;
  }
  const std::string installed = build::kVersion;
  if (isNewer(offered, installed)) {
    availableVersion_.set(offered);
    logger_.info("Update verfügbar: " + offered + " (installiert: " + installed + ")");
  } else {
    availableVersion_.set(std::nullopt);
  }
}

}  // namespace quellix
