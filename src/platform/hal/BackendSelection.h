#pragma once

#include <memory>

#include "platform/hal/AudioBackend.h"

namespace quellix {

class MainQueue;

// Chooses the backend the program runs on: QUELLIX_AUDIO_BACKEND=sim gives the simulator
// (one output device, no processes); anything else the sound server through libpulse. Installs and
// returns it.
std::shared_ptr<AudioBackend> installBackendFromEnvironment(MainQueue& queue);

// The installed backend for as long as this lives. The backend's thread posts to the queue, so
// declare it after the queue: it must be gone before the queue is.
class InstalledBackend {
 public:
  explicit InstalledBackend(MainQueue& queue) : backend_(installBackendFromEnvironment(queue)) {}
  ~InstalledBackend() {
    installAudioBackend(nullptr);
    backend_.reset();
  }
  InstalledBackend(const InstalledBackend&) = delete;
  InstalledBackend& operator=(const InstalledBackend&) = delete;

 private:
  std::shared_ptr<AudioBackend> backend_;
};

}  // namespace quellix
