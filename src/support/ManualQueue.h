#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "support/MainQueue.h"

namespace quellix {

// A main queue for tests: nothing runs until the test turns it, and time moves only when the
// test advances the virtual clock, so a 10-second timer fires without anyone sleeping.
class ManualQueue final : public MainQueue {
 public:
  void post(std::function<void()> work) override;
  TaskHandle schedule(Duration delay, std::optional<Duration> repeatEvery,
                      std::function<void()> work) override;
  TimePoint now() const override;
  void runFor(Duration duration) override { advance(duration); }

  // Runs posted work, including work posted while running, until none is left.
  // Returns how many items ran.
  std::size_t drain();

  // Moves the clock forward, running every task that comes due, in time order, and the
  // posted work each one leaves behind.
  void advance(Duration duration);

  std::size_t pendingTimers() const;

 private:
  struct Timer {
    std::function<void()> work;
    std::optional<Duration> repeatEvery;
    TaskHandle handle;
  };

  std::optional<std::function<void()>> takePosted();

  mutable std::mutex mutex_;
  std::deque<std::function<void()>> posted_;
  // Keyed by due time, then by order of scheduling, so equal due times run in order.
  std::map<std::pair<TimePoint, std::uint64_t>, Timer> timers_;
  std::uint64_t nextSequence_ = 0;
  TimePoint now_{};
};

}  // namespace quellix
