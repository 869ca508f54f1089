#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace quellix {

using Duration = std::chrono::steady_clock::duration;
using TimePoint = std::chrono::steady_clock::time_point;

// A scheduled task; cancelling it stops any further run. Copies share the task.
class TaskHandle {
 public:
  TaskHandle() = default;
  explicit TaskHandle(std::shared_ptr<std::atomic<bool>> cancelled)
      : cancelled_(std::move(cancelled)) {}

  void cancel() const;
  bool isCancelled() const;
  bool isValid() const { return cancelled_ != nullptr; }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_;
};

// The main thread's work queue: posted work, delayed and repeating tasks, and a monotonic
// clock. post() may be called from any thread; everything else only on the main thread.
class MainQueue {
 public:
  virtual ~MainQueue() = default;

  virtual void post(std::function<void()> work) = 0;

  // Runs `work` after `delay`, and then every `repeatEvery` if given, until cancelled.
  virtual TaskHandle schedule(Duration delay, std::optional<Duration> repeatEvery,
                              std::function<void()> work) = 0;

  virtual TimePoint now() const = 0;

  // Serves posted work and timers for `duration`, then returns.
  virtual void runFor(Duration duration) = 0;

  TaskHandle after(Duration delay, std::function<void()> work) {
    return schedule(delay, std::nullopt, std::move(work));
  }
  TaskHandle every(Duration interval, std::function<void()> work) {
    return schedule(interval, interval, std::move(work));
  }

  // Tasks that hold their owner weakly: once the owner is gone they do nothing.
  template <typename Owner, typename Action>
  void postWeak(const std::shared_ptr<Owner>& owner, Action action) {
    post(weakly(owner, std::move(action)));
  }
  template <typename Owner, typename Action>
  TaskHandle afterWeak(Duration delay, const std::shared_ptr<Owner>& owner, Action action) {
    return after(delay, weakly(owner, std::move(action)));
  }
  template <typename Owner, typename Action>
  TaskHandle everyWeak(Duration interval, const std::shared_ptr<Owner>& owner, Action action) {
    return every(interval, weakly(owner, std::move(action)));
  }

  template <typename Owner, typename Action>
  static std::function<void()> weakly(const std::shared_ptr<Owner>& owner, Action action) {
    return [weakOwner = std::weak_ptr<Owner>(owner), action = std::move(action)]() mutable {
      if (auto strongOwner = weakOwner.lock()) {
        action(*strongOwner);
      }
    };
  }
};

}  // namespace quellix
