#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "desktop/runtime/HttpClient.h"

namespace quellix::testing {

// Keeps every GET request until the test answers it.
class FakeHttpClient final : public HttpClient {
 public:
  void get(const std::string& url, Duration timeout, std::function<void(Reply)> done) override {
    requests.push_back(url);
    timeouts.push_back(timeout);
    pending.push_back(std::move(done));
  }

  void answer(Reply reply) {
    ASSERT_FALSE(pending.empty()) << "no request to answer";
    auto done = std::move(pending.front());
    pending.pop_front();
    done(std::move(reply));
  }

  std::vector<std::string> requests;
  std::vector<Duration> timeouts;
  std::deque<std::function<void(Reply)>> pending;
};

}  // namespace quellix::testing
