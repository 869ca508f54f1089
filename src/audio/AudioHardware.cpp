#include "audio/AudioHardware.h"

#include "audio/AudioBackend.h"

namespace quellix {

std::shared_ptr<AudioBackend>& backendSlot() {
  static std::shared_ptr<AudioBackend> backend;
  return backend;
}

void installAudioBackend(std::shared_ptr<AudioBackend> backend) {
  backendSlot() = std::move(backend);
}

std::shared_ptr<AudioBackend> installedAudioBackend() {
  return backendSlot();
}

}  // namespace quellix

namespace {

template <typename Call>
OSStatus forward(Call&& call) {
  // The backend is installed before any audio call and stays; no reference count per call.
  auto* backend = quellix::backendSlot().get();
  if (backend == nullptr) {
    return kAudioHardwareNotRunningError;
  }
  return call(*backend);
}

}  // namespace

OSStatus AudioObjectGetPropertyDataSize(AudioObjectID inObjectID,
                                        const AudioObjectPropertyAddress* inAddress,
                                        UInt32 inQualifierDataSize, const void* inQualifierData,
                                        UInt32* outDataSize) {
  if (inAddress == nullptr || outDataSize == nullptr) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.getPropertyDataSize(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                       *outDataSize);
  });
}

OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize, const void* inQualifierData,
                                    UInt32* ioDataSize, void* outData) {
  if (inAddress == nullptr || ioDataSize == nullptr || (outData == nullptr && *ioDataSize > 0)) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.getPropertyData(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                   *ioDataSize, outData);
  });
}

OSStatus AudioObjectSetPropertyData(AudioObjectID inObjectID,
                                    const AudioObjectPropertyAddress* inAddress,
                                    UInt32 inQualifierDataSize, const void* inQualifierData,
                                    UInt32 inDataSize, const void* inData) {
  if (inAddress == nullptr || (inData == nullptr && inDataSize > 0)) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.setPropertyData(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                   inDataSize, inData);
  });
}

bool AudioObjectHasProperty(AudioObjectID inObjectID, const AudioObjectPropertyAddress* inAddress) {
  auto* backend = quellix::backendSlot().get();
  return backend != nullptr && inAddress != nullptr && backend->hasProperty(inObjectID, *inAddress);
}

OSStatus AudioObjectAddPropertyListenerBlock(AudioObjectID inObjectID,
                                             const AudioObjectPropertyAddress* inAddress,
                                             dispatch_queue_t inDispatchQueue,
                                             AudioObjectPropertyListenerBlock inListener) {
  // Without a queue the listener would run on a backend thread, which nothing here expects.
  if (inAddress == nullptr || inDispatchQueue == nullptr || !inListener) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.addPropertyListener(inObjectID, *inAddress, inDispatchQueue,
                                       std::move(inListener));
  });
}

OSStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID inObjectID,
                                                const AudioObjectPropertyAddress* inAddress,
                                                dispatch_queue_t inDispatchQueue,
                                                AudioObjectPropertyListenerBlock inListener) {
  if (inAddress == nullptr || !inListener) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.removePropertyListener(inObjectID, *inAddress, inDispatchQueue, inListener);
  });
}

OSStatus AudioHardwareCreateProcessTap(const CATapDescription* inDescription,
                                       AudioObjectID* outTapID) {
  if (inDescription == nullptr || outTapID == nullptr) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.createProcessTap(*inDescription, *outTapID);
  });
}

OSStatus AudioHardwareDestroyProcessTap(AudioObjectID inTapID) {
  return forward(
      [&](quellix::AudioBackend& backend) { return backend.destroyProcessTap(inTapID); });
}

OSStatus AudioHardwareCreateAggregateDevice(const CFDictionary& inDescription,
                                            AudioObjectID* outDeviceID) {
  if (outDeviceID == nullptr || !inDescription.is_object()) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.createAggregateDevice(inDescription, *outDeviceID);
  });
}

OSStatus AudioHardwareDestroyAggregateDevice(AudioObjectID inDeviceID) {
  return forward(
      [&](quellix::AudioBackend& backend) { return backend.destroyAggregateDevice(inDeviceID); });
}

OSStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* outIOProcID,
                                            AudioObjectID inDevice,
                                            dispatch_queue_t inDispatchQueue,
                                            AudioDeviceIOBlock inIOBlock) {
  if (outIOProcID == nullptr || !inIOBlock) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](quellix::AudioBackend& backend) {
    return backend.createIOProcID(inDevice, inDispatchQueue, std::move(inIOBlock), *outIOProcID);
  });
}

OSStatus AudioDeviceStart(AudioObjectID inDevice, AudioDeviceIOProcID inProcID) {
  return forward(
      [&](quellix::AudioBackend& backend) { return backend.startDevice(inDevice, inProcID); });
}

OSStatus AudioDeviceStop(AudioObjectID inDevice, AudioDeviceIOProcID inProcID) {
  return forward(
      [&](quellix::AudioBackend& backend) { return backend.stopDevice(inDevice, inProcID); });
}

OSStatus AudioDeviceDestroyIOProcID(AudioObjectID inDevice, AudioDeviceIOProcID inIOProcID) {
  return forward([&](quellix::AudioBackend& backend) {
    return backend.destroyIOProcID(inDevice, inIOProcID);
  });
}
