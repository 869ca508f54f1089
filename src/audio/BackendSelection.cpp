#include "audio/BackendSelection.h"

#include <cstdlib>
#include <string_view>

#include "audio/pipewire/PipeWireBackend.h"
#include "audio/pulse/PulseBackend.h"
#include "audio/sim/SimAudioBackend.h"

namespace quellix {

std::shared_ptr<AudioBackend> backendFromEnvironment(std::shared_ptr<LogSink> logs) {
  const char* variable = std::getenv("QUELLIX_AUDIO_BACKEND");
  const std::string_view choice = variable != nullptr ? variable : "";
  Logger logger(logs, "AudioBackend");
  if (choice == "sim") {
    logger.info("Audio backend: simulated");
    auto sim = std::make_shared<SimAudioBackend>();
    sim->setDefaultOutputDevice(sim->addDevice({.uid = "sim-output"}));
    return sim;
  }
  if (choice == "pipewire") {
    logger.info("Audio backend: PipeWire (native)");
    return PipeWireBackend::create({}, std::move(logs));
  }
  if (!choice.empty() && choice != "pulse") {
    logger.error("Unknown QUELLIX_AUDIO_BACKEND \"" + std::string(choice) +
                 "\" (pulse, pipewire or sim); using pulse");
  }
  logger.info("Audio backend: PulseAudio protocol (libpulse)");
  return PulseBackend::create({}, std::move(logs));
}

}  // namespace quellix
