#pragma once

// What the parts of PulseBackend's implementation share; included by them alone.
#include <pulse/pulseaudio.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "audio/pulse/PulseBackend.h"

namespace quellix::pulse {

inline constexpr AudioObjectPropertyAddress kVolumeAddress{
    kAudioHardwareServiceDeviceProperty_VirtualMainVolume, kAudioDevicePropertyScopeOutput,
    kAudioObjectPropertyElementMain};
inline constexpr AudioObjectPropertyAddress kMuteAddress{
    kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput, kAudioObjectPropertyElementMain};
inline constexpr AudioObjectPropertyAddress kOutputDeviceAddress{
    kAudioProcessPropertyOutputDeviceUID, kAudioObjectPropertyScopeGlobal,
    kAudioObjectPropertyElementMain};

class MainloopLock {
 public:
  explicit MainloopLock(pa_threaded_mainloop* mainloop) : mainloop_(mainloop) {
    pa_threaded_mainloop_lock(mainloop_);
  }
  ~MainloopLock() { pa_threaded_mainloop_unlock(mainloop_); }
  MainloopLock(const MainloopLock&) = delete;
  MainloopLock& operator=(const MainloopLock&) = delete;

 private:
  pa_threaded_mainloop* mainloop_;
};

inline PulseBackend* backendOf(void* userdata) {
  return static_cast<PulseBackend*>(userdata);
}

// The channel volumes that keep the sink's balance and average to `volume`.
inline pa_cvolume scaledVolume(const std::vector<std::uint32_t>& channels, Float32 volume) {
  pa_cvolume result;
  pa_cvolume_init(&result);
  const auto count =
      static_cast<std::uint8_t>(std::clamp<std::size_t>(channels.size(), 1, PA_CHANNELS_MAX));
  result.channels = count;
  const double target = std::clamp<double>(volume, 0.0, 1.0) * PA_VOLUME_NORM;
  double average = 0;
  for (std::size_t i = 0; i < channels.size() && i < count; ++i) {
    average += channels[i];
  }
  average /= count;
  for (std::uint8_t i = 0; i < count; ++i) {
    const double value =
        average > 0 && i < channels.size() ? channels[i] * target / average : target;
    result.values[i] =
        static_cast<pa_volume_t>(std::clamp<double>(std::lround(value), 0, PA_VOLUME_MAX));
  }
  return result;
}

}  // namespace quellix::pulse

namespace quellix {

// The userdata of one issued request, shared with the runner's handle on it: the reply
// frees it, or the handle does when the request is abandoned before its reply.
struct PulseBackend::PendingReply {
  PulseBackend* backend = nullptr;
  Finish finish;
  std::function<void(std::uint32_t)> onIndex;  // a creating request's new index
  bool answered = false;
};

}  // namespace quellix
