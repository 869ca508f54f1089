#include "audio/pulse/HeldLatency.h"

#include <algorithm>

namespace quellix {
namespace {

constexpr double kStepMs = static_cast<double>(HeldLatency::kStep.count());

}  // namespace

HeldLatency::HeldLatency(std::chrono::milliseconds target, std::chrono::microseconds tick)
    : targetMs_(static_cast<double>(target.count())),
      repeatedTicks_(static_cast<std::uint64_t>(kRepeatedSpan / tick)),
      baseQuietTicks_(static_cast<std::uint64_t>(kQuietSpan / tick)),
      quietTicks_(baseQuietTicks_),
      heldMs_(targetMs_) {}

void HeldLatency::onTick() {
  ++ticks_;
  if (++sinceChange_ < quietTicks_ || heldMs_ <= targetMs_) {
    return;
  }
  sinceChange_ = 0;
  steppedDownAt_ = ticks_;
  if (readingExcessMs_ > 0) {
    readingExcessMs_ = std::max(readingExcessMs_ - kStepMs, 0.0);
  } else {
    heldMs_ = std::max(heldMs_ - kStepMs, targetMs_);
  }
}

bool HeldLatency::onUnderrun() {
  sinceChange_ = 0;
  // The slot holds the underrun two before this one.
  std::uint64_t& twoBefore = underrunTicks_[underrunsSeen_++ % underrunTicks_.size()];
  const bool repeated =
      underrunsSeen_ > underrunTicks_.size() && ticks_ - twoBefore < repeatedTicks_;
  twoBefore = ticks_;
  if (!repeated) {
    return false;
  }
  if (steppedDownAt_ && ticks_ - *steppedDownAt_ < quietTicks_) {
    quietTicks_ = std::min(quietTicks_ * 2, baseQuietTicks_ * kMaxQuietSpans);
  }
  steppedDownAt_.reset();
  if (heldMs_ < kMaxHeld * targetMs_) {
    heldMs_ = std::min(heldMs_ + kStepMs, kMaxHeld * targetMs_);
  } else if (readingExcessMs_ < kMaxReadingExcess * targetMs_) {
    readingExcessMs_ = std::min(readingExcessMs_ + kStepMs, kMaxReadingExcess * targetMs_);
  } else {
    return false;
  }
  return true;
}

}  // namespace quellix
