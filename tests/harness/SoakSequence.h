#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "engine/muting/MuteController.h"

namespace quellix::testing {

// A long, seeded run of what a user does in the panel: mostly slider steps, toggles now and
// then, and once in a while mute all or unmute all. The same run drives the controller on the
// simulator and on a real sound server.
struct SoakStep {
  enum class Kind { toggle, slider, muteAll, unmuteAll };
  Kind kind = Kind::slider;
  std::size_t app = 0;  // taken modulo the number of applications listed at the time
  float volume = 1.0f;
};

inline std::vector<SoakStep> soakSequence(std::size_t count, std::uint32_t seed = 1) {
  // Out of 100: slider steps, toggles, mute all, unmute all.
  constexpr int kSliderShare = 65;
  constexpr int kToggleShare = 25;
  constexpr int kMuteAllShare = 5;
  // A slider step that ends at full volume, so taps also go away through the slider.
  constexpr int kFullVolumeShare = 20;
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<std::size_t> app(0, 1000);
  std::uniform_real_distribution<float> volume(0.0f, 1.0f);
  std::vector<SoakStep> steps;
  steps.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    SoakStep step;
    const int draw = percent(random);
    step.kind = draw < kSliderShare                                  ? SoakStep::Kind::slider
                : draw < kSliderShare + kToggleShare                 ? SoakStep::Kind::toggle
                : draw < kSliderShare + kToggleShare + kMuteAllShare ? SoakStep::Kind::muteAll
                                                                     : SoakStep::Kind::unmuteAll;
    step.app = app(random);
    step.volume = percent(random) < kFullVolumeShare ? 1.0f : volume(random);
    steps.push_back(step);
  }
  return steps;
}

inline void apply(const SoakStep& step, MuteController& controller,
                  const std::vector<AudioApp>& apps) {
  switch (step.kind) {
    case SoakStep::Kind::muteAll:
      controller.muteAll();
      return;
    case SoakStep::Kind::unmuteAll:
      controller.unmuteAll();
      return;
    case SoakStep::Kind::toggle:
    case SoakStep::Kind::slider:
      break;
  }
  if (apps.empty()) {
    return;
  }
  const AudioApp& app = apps[step.app % apps.size()];
  if (step.kind == SoakStep::Kind::toggle) {
    controller.toggle(app);
  } else {
    controller.setVolume(step.volume, app);
  }
}

// Leaves every application untouched: no mute, full volume, so no tap is needed.
inline void releaseAll(MuteController& controller, const std::vector<AudioApp>& apps) {
  controller.unmuteAll();
  for (const auto& app : apps) {
    controller.setVolume(1.0f, app);
  }
}

}  // namespace quellix::testing
