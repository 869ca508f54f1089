#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

namespace quellix {

// How much playback latency an IO path holds, learnt from its underruns. Underruns that follow
// each other mean the server's own cycle is longer than the held latency allows for: hold
// more, up to a limit. A single one, or a pair as the server catches up after a stall, is a
// hiccup of the machine that more latency would not have covered. Once the limit is reached,
// further underruns mean the latency reading counts more than is queued (a server's graph may
// report its own delay in it), and that excess is discounted instead. A quiet stretch gives
// back a step at a time, so that one bad minute does not cost latency for the session; when
// a step given back is soon taken again, the condition lasts, and the next wait is twice as
// long.
//
// Time is counted in the IO path's ticks, which the owner reports.
class HeldLatency {
 public:
  static constexpr std::chrono::milliseconds kStep{5};
  static constexpr std::chrono::seconds kRepeatedSpan{10};
  static constexpr std::chrono::seconds kQuietSpan{30};
  static constexpr int kMaxQuietSpans = 16;
  static constexpr double kMaxHeld = 3.0;           // in targets
  static constexpr double kMaxReadingExcess = 5.0;  // in targets

  HeldLatency(std::chrono::milliseconds target, std::chrono::microseconds tick);

  void onTick();
  // Whether the held latency or the discounted excess grew.
  bool onUnderrun();

  double heldMs() const { return heldMs_; }
  double readingExcessMs() const { return readingExcessMs_; }

 private:
  double targetMs_;
  std::uint64_t repeatedTicks_;
  std::uint64_t baseQuietTicks_;
  std::uint64_t quietTicks_;
  double heldMs_;
  double readingExcessMs_ = 0;
  std::uint64_t ticks_ = 0;
  // Ticks since the last underrun or the last step down, and the tick of a step down no
  // underrun has yet taken back.
  std::uint64_t sinceChange_ = 0;
  std::optional<std::uint64_t> steppedDownAt_;
  std::array<std::uint64_t, 2> underrunTicks_{};
  std::uint64_t underrunsSeen_ = 0;
};

}  // namespace quellix
