#include "audio/BackendSelection.h"

#include <cstdlib>
#include <string_view>

#include "audio/pulse/PulseBackend.h"
#include "audio/sim/SimAudioBackend.h"

namespace quellix {

std::shared_ptr<AudioBackend> backendFromEnvironment(std::shared_ptr<LogSink> logs) {
  const char* choice = std::getenv("QUELLIX_AUDIO_BACKEND");
  if (choice != nullptr && std::string_view(choice) == "sim") {
    auto sim = std::make_shared<SimAudioBackend>();
    sim->setDefaultOutputDevice(sim->addDevice({.uid = "sim-output"}));
    return sim;
  }
  return PulseBackend::create({}, std::move(logs));
}

}  // namespace quellix
