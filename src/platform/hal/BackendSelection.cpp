#include "platform/hal/BackendSelection.h"

#include <cstdlib>
#include <string_view>

#include "platform/hal/sim/SimAudioBackend.h"
#include "support/Logger.h"

namespace quellix {
namespace {

// Stands in for the sound server until that backend exists: every call fails clearly.
class UnavailableBackend final : public AudioBackend {
 public:
  OSStatus getPropertyDataSize(AudioObjectID, const AudioObjectPropertyAddress&, UInt32,
                               const void*, UInt32&) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus getPropertyData(AudioObjectID, const AudioObjectPropertyAddress&, UInt32, const void*,
                           UInt32&, void*) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus setPropertyData(AudioObjectID, const AudioObjectPropertyAddress&, UInt32, const void*,
                           UInt32, const void*) override {
    return kAudioHardwareNotRunningError;
  }
  bool hasProperty(AudioObjectID, const AudioObjectPropertyAddress&) override { return false; }
  OSStatus addPropertyListener(AudioObjectID, const AudioObjectPropertyAddress&, MainQueue*,
                               AudioObjectPropertyListenerBlock) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus removePropertyListener(AudioObjectID, const AudioObjectPropertyAddress&, MainQueue*,
                                  const AudioObjectPropertyListenerBlock&) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus createProcessTap(const CATapDescription&, AudioObjectID&) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus destroyProcessTap(AudioObjectID) override { return kAudioHardwareNotRunningError; }
  OSStatus createAggregateDevice(const CFDictionary&, AudioObjectID&) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus destroyAggregateDevice(AudioObjectID) override { return kAudioHardwareNotRunningError; }
  OSStatus createIOProcID(AudioObjectID, MainQueue*, AudioDeviceIOBlock,
                          AudioDeviceIOProcID&) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus startDevice(AudioObjectID, AudioDeviceIOProcID) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus stopDevice(AudioObjectID, AudioDeviceIOProcID) override {
    return kAudioHardwareNotRunningError;
  }
  OSStatus destroyIOProcID(AudioObjectID, AudioDeviceIOProcID) override {
    return kAudioHardwareNotRunningError;
  }
};

}  // namespace

std::shared_ptr<AudioBackend> installBackendFromEnvironment(MainQueue&) {
  const char* choice = std::getenv("QUELLIX_AUDIO_BACKEND");
  std::shared_ptr<AudioBackend> backend;
  if (choice != nullptr && std::string_view(choice) == "sim") {
    auto sim = std::make_shared<SimAudioBackend>();
    sim->setDefaultOutputDevice(sim->addDevice({.uid = "sim-output"}));
    backend = sim;
  } else {
    Logger("AudioBackend")
        .error(
            "The sound-server backend is not available in this build; "
            "set QUELLIX_AUDIO_BACKEND=sim for the simulated audio system");
    backend = std::make_shared<UnavailableBackend>();
  }
  installAudioBackend(backend);
  return backend;
}

}  // namespace quellix
