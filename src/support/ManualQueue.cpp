#include "support/ManualQueue.h"

namespace quellix {

void ManualQueue::post(std::function<void()> work) {
  std::lock_guard lock(mutex_);
  posted_.push_back(std::move(work));
}

TaskHandle ManualQueue::schedule(Duration delay, std::optional<Duration> repeatEvery,
                                 std::function<void()> work) {
  TaskHandle handle(std::make_shared<std::atomic<bool>>(false));
  std::lock_guard lock(mutex_);
  timers_.emplace(std::make_pair(now_ + delay, nextSequence_++),
                  Timer{std::move(work), repeatEvery, handle});
  return handle;
}

TimePoint ManualQueue::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

std::optional<std::function<void()>> ManualQueue::takePosted() {
  std::lock_guard lock(mutex_);
  if (posted_.empty()) {
    return std::nullopt;
  }
  auto work = std::move(posted_.front());
  posted_.pop_front();
  return work;
}

std::size_t ManualQueue::drain() {
  std::size_t count = 0;
  while (auto work = takePosted()) {
    (*work)();
    ++count;
  }
  return count;
}

void ManualQueue::advance(Duration duration) {
  drain();
  TimePoint end;
  {
    std::lock_guard lock(mutex_);
    end = now_ + duration;
  }
  for (;;) {
    Timer timer;
    {
      std::lock_guard lock(mutex_);
      auto next = timers_.begin();
      if (next == timers_.end() || next->first.first > end) {
        now_ = end;
        break;
      }
      now_ = next->first.first;
      timer = std::move(next->second);
      timers_.erase(next);
    }
    if (timer.handle.isCancelled()) {
      continue;
    }
    timer.work();
    if (timer.repeatEvery && !timer.handle.isCancelled()) {
      std::lock_guard lock(mutex_);
      timers_.emplace(std::make_pair(now_ + *timer.repeatEvery, nextSequence_++), std::move(timer));
    }
    drain();
  }
  drain();
}

std::size_t ManualQueue::pendingTimers() const {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (const auto& [key, timer] : timers_) {
    count += timer.handle.isCancelled() ? 0 : 1;
  }
  return count;
}

}  // namespace quellix
