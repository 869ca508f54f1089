#include "audio/BackendSelection.h"

#include <cstdlib>
#include <string_view>

#include "audio/pulse/PulseBackend.h"
#include "audio/sim/SimAudioBackend.h"

namespace quellix {
std::shared_ptr<AudioBackend> installBackendFromEnvironment(MainQueue&) {
  const char* choice = std::getenv("QUELLIX_AUDIO_BACKEND");
  std::shared_ptr<AudioBackend> backend;
  if (choice != nullptr && std::string_view(choice) == "sim") {
    auto sim = std::make_shared<SimAudioBackend>();
    sim->setDefaultOutputDevice(sim->addDevice({.uid = "sim-output"}));
    backend = sim;
  } else {
    backend = PulseBackend::create({});
  }
  installAudioBackend(backend);
  return backend;
}

}  // namespace quellix
