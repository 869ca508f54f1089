#include "audio/AudioHardware.h"

#include "audio/AudioBackend.h"

namespace quellix {

AudioHardware::AudioHardware(std::shared_ptr<AudioBackend> backend)
    : backend_(std::move(backend)) {}

AudioHardware::~AudioHardware() = default;

template <typename Call>
OSStatus AudioHardware::forward(Call&& call) {
  auto* backend = backend_.get();
  if (backend == nullptr) {
    return kAudioHardwareNotRunningError;
  }
  return call(*backend);
}

OSStatus AudioHardware::AudioObjectGetPropertyDataSize(AudioObjectID inObjectID,
                                                       const AudioObjectPropertyAddress* inAddress,
                                                       UInt32 inQualifierDataSize,
                                                       const void* inQualifierData,
                                                       UInt32* outDataSize) {
  if (inAddress == nullptr || outDataSize == nullptr) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.getPropertyDataSize(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                       *outDataSize);
  });
}

OSStatus AudioHardware::AudioObjectGetPropertyData(AudioObjectID inObjectID,
                                                   const AudioObjectPropertyAddress* inAddress,
                                                   UInt32 inQualifierDataSize,
                                                   const void* inQualifierData, UInt32* ioDataSize,
                                                   void* outData) {
  if (inAddress == nullptr || ioDataSize == nullptr || (outData == nullptr && *ioDataSize > 0)) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.getPropertyData(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                   *ioDataSize, outData);
  });
}

OSStatus AudioHardware::AudioObjectSetPropertyData(AudioObjectID inObjectID,
                                                   const AudioObjectPropertyAddress* inAddress,
                                                   UInt32 inQualifierDataSize,
                                                   const void* inQualifierData, UInt32 inDataSize,
                                                   const void* inData) {
  if (inAddress == nullptr || (inData == nullptr && inDataSize > 0)) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.setPropertyData(inObjectID, *inAddress, inQualifierDataSize, inQualifierData,
                                   inDataSize, inData);
  });
}

bool AudioHardware::AudioObjectHasProperty(AudioObjectID inObjectID,
                                           const AudioObjectPropertyAddress* inAddress) {
  auto* backend = backend_.get();
  return backend != nullptr && inAddress != nullptr && backend->hasProperty(inObjectID, *inAddress);
}

OSStatus AudioHardware::AudioObjectAddPropertyListenerBlock(
    AudioObjectID inObjectID, const AudioObjectPropertyAddress* inAddress,
    dispatch_queue_t inDispatchQueue, AudioObjectPropertyListenerBlock inListener) {
  // Without a queue the listener would run on a backend thread, which nothing here expects.
  if (inAddress == nullptr || inDispatchQueue == nullptr || !inListener) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.addPropertyListener(inObjectID, *inAddress, inDispatchQueue,
                                       std::move(inListener));
  });
}

OSStatus AudioHardware::AudioObjectRemovePropertyListenerBlock(
    AudioObjectID inObjectID, const AudioObjectPropertyAddress* inAddress,
    dispatch_queue_t inDispatchQueue, AudioObjectPropertyListenerBlock inListener) {
  if (inAddress == nullptr || !inListener) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.removePropertyListener(inObjectID, *inAddress, inDispatchQueue, inListener);
  });
}

OSStatus AudioHardware::AudioHardwareCreateProcessTap(const CATapDescription* inDescription,
                                                      AudioObjectID* outTapID) {
  if (inDescription == nullptr || outTapID == nullptr) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward(
      [&](AudioBackend& backend) { return backend.createProcessTap(*inDescription, *outTapID); });
}

OSStatus AudioHardware::AudioHardwareDestroyProcessTap(AudioObjectID inTapID) {
  return forward([&](AudioBackend& backend) { return backend.destroyProcessTap(inTapID); });
}

OSStatus AudioHardware::AudioHardwareCreateAggregateDevice(const CFDictionary& inDescription,
                                                           AudioObjectID* outDeviceID) {
  if (outDeviceID == nullptr || !inDescription.is_object()) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.createAggregateDevice(inDescription, *outDeviceID);
  });
}

OSStatus AudioHardware::AudioHardwareDestroyAggregateDevice(AudioObjectID inDeviceID) {
  return forward([&](AudioBackend& backend) { return backend.destroyAggregateDevice(inDeviceID); });
}

OSStatus AudioHardware::AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* outIOProcID,
                                                           AudioObjectID inDevice,
                                                           dispatch_queue_t inDispatchQueue,
                                                           AudioDeviceIOBlock inIOBlock) {
  if (outIOProcID == nullptr || !inIOBlock) {
    return kAudioHardwareIllegalOperationError;
  }
  return forward([&](AudioBackend& backend) {
    return backend.createIOProcID(inDevice, inDispatchQueue, std::move(inIOBlock), *outIOProcID);
  });
}

OSStatus AudioHardware::AudioDeviceStart(AudioObjectID inDevice, AudioDeviceIOProcID inProcID) {
  return forward([&](AudioBackend& backend) { return backend.startDevice(inDevice, inProcID); });
}

OSStatus AudioHardware::AudioDeviceStop(AudioObjectID inDevice, AudioDeviceIOProcID inProcID) {
  return forward([&](AudioBackend& backend) { return backend.stopDevice(inDevice, inProcID); });
}

OSStatus AudioHardware::AudioDeviceDestroyIOProcID(AudioObjectID inDevice,
                                                   AudioDeviceIOProcID inIOProcID) {
  return forward(
      [&](AudioBackend& backend) { return backend.destroyIOProcID(inDevice, inIOProcID); });
}

}  // namespace quellix
