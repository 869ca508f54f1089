#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "support/Logger.h"

namespace quellix {

// The requests a backend sends to its sound server without waiting for the answer. Each
// operation belongs to a lane (one device's volume, one tap): the operations of a lane are
// issued one after the other, lanes run side by side. An operation that the server refuses,
// that does not answer within the time-out, or that the connection takes with it fails with
// one log line, and its owner then re-reads the truth.
//
// Not thread-safe: the backend calls it under the lock that guards its connection, and the
// clock is injected so that time-outs can be tested without waiting.
class OperationRunner {
 public:
  using Clock = std::chrono::steady_clock;
  // Whatever keeps an issued request answerable; dropping it abandons the request.
  using InFlight = std::shared_ptr<void>;
  // The server's answer: true when it carried the operation out.
  using Finish = std::function<void(bool succeeded)>;

  struct Operation {
    std::string description;  // names the operation in its failure line
    // Issues the request and later calls `finish` (at most once, perhaps at once). A request
    // that cannot be issued calls finish(false).
    std::function<InFlight(Finish)> start;
    // After a failure: brings the owner's model back to what the server holds.
    std::function<void()> onFailure;
    // A later replaceable operation of the same lane takes the place of this one while it
    // waits: a slider drag sends only its latest value.
    bool replaceable = false;
  };

  OperationRunner(std::chrono::milliseconds timeout, std::function<Clock::time_point()> clock,
                  Logger logger);
  ~OperationRunner();
  OperationRunner(const OperationRunner&) = delete;
  OperationRunner& operator=(const OperationRunner&) = delete;

  void submit(const std::string& lane, Operation operation);
  // Fails every issued operation whose time-out has passed.
  void expire();
  // Fails everything, issued or waiting: the connection is gone.
  void failAll(const std::string& reason);

  // When expire() has something to do next.
  std::optional<Clock::time_point> nextDeadline() const;
  std::size_t pendingCount() const;

 private:
  struct Running {
    std::uint64_t id = 0;
    Clock::time_point deadline;
    Operation operation;
    InFlight inFlight;
  };
  struct Lane {
    std::optional<Running> running;
    std::deque<Operation> waiting;
  };

  void startNext(const std::string& lane);
  void finish(const std::string& lane, std::uint64_t id, bool succeeded);
  void fail(Operation& operation, const std::string& why);

  std::chrono::milliseconds timeout_;
  std::function<Clock::time_point()> clock_;
  Logger logger_;
  std::map<std::string, Lane> lanes_;
  std::uint64_t nextID_ = 1;
  // Shared with the Finish callbacks, which may outlive the runner inside a library's reply.
  std::shared_ptr<OperationRunner*> self_;
};

}  // namespace quellix
