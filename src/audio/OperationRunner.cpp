#include "audio/OperationRunner.h"

#include <utility>
#include <vector>

namespace quellix {

OperationRunner::OperationRunner(std::chrono::milliseconds timeout,
                                 std::function<Clock::time_point()> clock, Logger logger)
    : timeout_(timeout),
      clock_(std::move(clock)),
      logger_(std::move(logger)),
      self_(std::make_shared<OperationRunner*>(this)) {}

OperationRunner::~OperationRunner() {
  *self_ = nullptr;
}

void OperationRunner::submit(const std::string& lane, Operation operation) {
  Lane& queue = lanes_[lane];
  if (operation.replaceable && !queue.waiting.empty() && queue.waiting.back().replaceable) {
    queue.waiting.back() = std::move(operation);
  } else {
    queue.waiting.push_back(std::move(operation));
  }
  startNext(lane);
}

void OperationRunner::startNext(const std::string& lane) {
  const auto found = lanes_.find(lane);
  if (found == lanes_.end() || found->second.running) {
    return;
  }
  if (found->second.waiting.empty()) {
    lanes_.erase(found);
    return;
  }
  const std::uint64_t id = nextID_++;
  found->second.running =
      Running{id, clock_() + timeout_, std::move(found->second.waiting.front()), nullptr};
  found->second.waiting.pop_front();
  // The operation may finish inside start and take its Running with it: start from a copy.
  const auto start = found->second.running->operation.start;
  Finish finishOperation = [self = self_, lane, id](bool succeeded) {
    if (*self != nullptr) {
      (*self)->finish(lane, id, succeeded);
    }
  };
  InFlight inFlight = start ? start(std::move(finishOperation)) : nullptr;
  if (!start) {
    finish(lane, id, false);
    return;
  }
  const auto again = lanes_.find(lane);
  if (again != lanes_.end() && again->second.running && again->second.running->id == id) {
    again->second.running->inFlight = std::move(inFlight);
  }
}

void OperationRunner::finish(const std::string& lane, std::uint64_t id, bool succeeded) {
  const auto found = lanes_.find(lane);
  if (found == lanes_.end() || !found->second.running || found->second.running->id != id) {
    return;  // timed out or failed with its connection before the answer came
  }
  Running done = std::move(*found->second.running);
  found->second.running.reset();
  if (!succeeded) {
    fail(done.operation, "the sound server refused it");
  }
  startNext(lane);
}

void OperationRunner::expire() {
  const auto now = clock_();
  std::vector<std::string> overdue;
  for (const auto& [name, lane] : lanes_) {
    if (lane.running && lane.running->deadline <= now) {
      overdue.push_back(name);
    }
  }
  for (const auto& name : overdue) {
    const auto found = lanes_.find(name);
    if (found == lanes_.end() || !found->second.running) {
      continue;
    }
    Running late = std::move(*found->second.running);
    found->second.running.reset();
    late.inFlight.reset();  // abandons the request: a late answer finds nobody
    fail(late.operation,
         "no answer from the sound server within " + std::to_string(timeout_.count()) + " ms");
    startNext(name);
  }
}

void OperationRunner::failAll(const std::string& reason) {
  std::vector<Operation> failed;
  for (auto& [name, lane] : lanes_) {
    if (lane.running) {
      lane.running->inFlight.reset();
      failed.push_back(std::move(lane.running->operation));
    }
    for (auto& waiting : lane.waiting) {
      failed.push_back(std::move(waiting));
    }
  }
  lanes_.clear();
  for (auto& operation : failed) {
    fail(operation, reason);
  }
}

void OperationRunner::fail(Operation& operation, const std::string& why) {
  logger_.error(operation.description + " failed: " + why);
  if (operation.onFailure) {
    operation.onFailure();
  }
}

std::optional<OperationRunner::Clock::time_point> OperationRunner::nextDeadline() const {
  std::optional<Clock::time_point> next;
  for (const auto& entry : lanes_) {
    if (entry.second.running && (!next || entry.second.running->deadline < *next)) {
      next = entry.second.running->deadline;
    }
  }
  return next;
}

std::size_t OperationRunner::pendingCount() const {
  std::size_t count = 0;
  for (const auto& entry : lanes_) {
    count += (entry.second.running ? 1 : 0) + entry.second.waiting.size();
  }
  return count;
}

}  // namespace quellix
