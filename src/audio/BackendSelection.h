#pragma once

#include <memory>

#include "audio/AudioBackend.h"

namespace quellix {

class MainQueue;

// Chooses the backend the program runs on: QUELLIX_AUDIO_BACKEND=sim gives the simulator
// (one output device, no processes); anything else the sound server through libpulse. Installs and
// returns it.
std::shared_ptr<AudioBackend> installBackendFromEnvironment(MainQueue& queue);

}  // namespace quellix
