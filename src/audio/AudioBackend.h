#pragma once

#include <memory>

#include "audio/AudioHardware.h"

namespace quellix {

// What a real audio system provides behind the hardware layer. Every method may be
// called from the main thread only; IO blocks run on the backend's IO thread; listeners are
// delivered through the queue they were registered with.
class AudioBackend {
 public:
  virtual ~AudioBackend() = default;

  virtual OSStatus getPropertyDataSize(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address,
                                       UInt32 qualifierSize, const void* qualifier,
                                       UInt32& outSize) = 0;
  virtual OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                   UInt32 qualifierSize, const void* qualifier, UInt32& ioSize,
                                   void* outData) = 0;
  virtual OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                   UInt32 qualifierSize, const void* qualifier, UInt32 size,
                                   const void* data) = 0;
  virtual bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) = 0;
  virtual OSStatus addPropertyListener(AudioObjectID object,
                                       const AudioObjectPropertyAddress& address, MainQueue* queue,
                                       AudioObjectPropertyListenerBlock listener) = 0;
  virtual OSStatus removePropertyListener(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address,
                                          MainQueue* queue,
                                          const AudioObjectPropertyListenerBlock& listener) = 0;

  virtual OSStatus createProcessTap(const CATapDescription& description, AudioObjectID& outTap) = 0;
  virtual OSStatus destroyProcessTap(AudioObjectID tap) = 0;
  virtual OSStatus createAggregateDevice(const CFDictionary& description,
                                         AudioObjectID& outDevice) = 0;
  virtual OSStatus destroyAggregateDevice(AudioObjectID device) = 0;
  virtual OSStatus createIOProcID(AudioObjectID device, MainQueue* queue, AudioDeviceIOBlock block,
                                  AudioDeviceIOProcID& outProc) = 0;
  virtual OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID proc) = 0;
  virtual OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID proc) = 0;
  virtual OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID proc) = 0;
};

}  // namespace quellix
