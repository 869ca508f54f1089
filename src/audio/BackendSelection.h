#pragma once

#include <memory>

#include "audio/AudioBackend.h"
#include "support/Logger.h"

namespace quellix {

// Chooses the backend the program runs on and logs which: QUELLIX_AUDIO_BACKEND=sim gives the
// simulator (one output device, no processes), =pipewire PipeWire itself, anything else the
// sound server through libpulse. Logs to `logs`.
std::shared_ptr<AudioBackend> backendFromEnvironment(std::shared_ptr<LogSink> logs);

}  // namespace quellix
