#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/MainQueue.h"

namespace quellix {

// A plain HTTP GET that never blocks the caller: the reply arrives later on the main thread.
class HttpClient {
 public:
  struct Reply {
    std::optional<std::string> body;  // whatever arrived, whatever the status code
    std::string errorDescription;     // why nothing arrived, when body is absent
  };

  virtual ~HttpClient() = default;

  // Ignores every cache and gives up after `timeout`. `done` is called exactly once, on the
  // main thread, and never before get() has returned.
  virtual void get(const std::string& url, Duration timeout, std::function<void(Reply)> done) = 0;
};

// The real client over Qt Network; needs a running Qt application.
std::shared_ptr<HttpClient> makeQtHttpClient();

// Whether `text` is a complete absolute address: it parses strictly and names a scheme and a
// host.
bool isWebAddress(const std::string& text);

}  // namespace quellix
