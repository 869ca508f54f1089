#pragma once

#include <chrono>

namespace quellix {

// The calendar time statistics are measured in; tests set it, also backwards.
class WallClock {
 public:
  using TimePoint = std::chrono::system_clock::time_point;
  virtual ~WallClock() = default;
  virtual TimePoint now() const = 0;
};

class SystemWallClock final : public WallClock {
 public:
  TimePoint now() const override { return std::chrono::system_clock::now(); }
};

class ManualWallClock final : public WallClock {
 public:
  TimePoint now() const override { return now_; }
  void set(TimePoint time) { now_ = time; }
  void advance(std::chrono::system_clock::duration by) { now_ += by; }

 private:
  TimePoint now_{std::chrono::hours(24 * 365 * 50)};
};

}  // namespace quellix
