#pragma once

#include <cstdint>

namespace quellix::MediaKeys {

inline constexpr std::int32_t kPreviousTrack = 18;
inline constexpr std::int32_t kPlayPause = 16;
inline constexpr std::int32_t kNextTrack = 17;

// Presses a media key: a key-down and a key-up event, posted back to back. Failures are silent.
void send(std::int32_t key);

}  // namespace quellix::MediaKeys
