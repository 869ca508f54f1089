#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "audio/AudioHardware.h"

namespace quellix {

// The gain a tap's IO block applies, shared between the main thread (which stores it) and the
// audio IO thread (which loads it once per cycle). The block holds the renderer alive until its
// IO procedure is destroyed, so a store racing with teardown writes into a live object.
class TapRenderer : public std::enable_shared_from_this<TapRenderer> {
 public:
  // From this gain up, an unattenuated buffer is copied rather than multiplied.
  static constexpr float kCopyThreshold = 0.999f;

  static std::shared_ptr<TapRenderer> create(float gain);

  void setGain(float gain);
  float gain() const;

  AudioDeviceIOBlock makeIOBlock();

  // One IO cycle at `gain`: the first input buffer, times the gain, into every output buffer.
  // Allocates nothing, locks nothing, makes no system call.
  static void render(float gain, const AudioBufferList* input, AudioBufferList* output);

 private:
  explicit TapRenderer(float gain);

  std::atomic<std::uint32_t> gainBits_;
};

}  // namespace quellix
