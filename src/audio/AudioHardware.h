#pragma once

// The audio hardware layer: Core Audio's names, signatures, selectors and statuses.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "audio/CFString.h"
#include "support/FourCharCode.h"
#include "support/Uuid.h"

namespace quellix {
class MainQueue;
}

using UInt32 = std::uint32_t;
using SInt32 = std::int32_t;
using Float32 = float;
using Float64 = double;
using OSStatus = std::int32_t;
using AudioObjectID = UInt32;
using AudioObjectPropertySelector = UInt32;
using AudioObjectPropertyScope = UInt32;
using AudioObjectPropertyElement = UInt32;
using AudioDeviceID = AudioObjectID;

struct AudioObjectPropertyAddress {
  AudioObjectPropertySelector mSelector;
  AudioObjectPropertyScope mScope;
  AudioObjectPropertyElement mElement;

  friend bool operator==(const AudioObjectPropertyAddress&,
                         const AudioObjectPropertyAddress&) = default;
};

// Listeners are delivered on the queue they were registered with, never on a backend thread.
using dispatch_queue_t = quellix::MainQueue*;

// A listener registration is identified by the handler object it was added with.
using AudioObjectPropertyListenerBlock =
    std::shared_ptr<const std::function<void(UInt32, const AudioObjectPropertyAddress*)>>;

inline AudioObjectPropertyListenerBlock makeListenerBlock(
    std::function<void(UInt32, const AudioObjectPropertyAddress*)> handler) {
  return std::make_shared<const std::function<void(UInt32, const AudioObjectPropertyAddress*)>>(
      std::move(handler));
}

// Objects and status codes.
inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

inline constexpr OSStatus kAudioHardwareNoError = 0;
inline constexpr OSStatus kAudioHardwareNotRunningError =
    static_cast<OSStatus>(quellix::fourCC("stop"));
inline constexpr OSStatus kAudioHardwareUnspecifiedError =
    static_cast<OSStatus>(quellix::fourCC("what"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError =
    static_cast<OSStatus>(quellix::fourCC("who?"));
inline constexpr OSStatus kAudioHardwareBadPropertySizeError =
    static_cast<OSStatus>(quellix::fourCC("!siz"));
inline constexpr OSStatus kAudioHardwareIllegalOperationError =
    static_cast<OSStatus>(quellix::fourCC("nope"));
inline constexpr OSStatus kAudioHardwareBadObjectError =
    static_cast<OSStatus>(quellix::fourCC("!obj"));
inline constexpr OSStatus kAudioHardwareBadDeviceError =
    static_cast<OSStatus>(quellix::fourCC("!dev"));
inline constexpr OSStatus kAudioHardwareUnsupportedOperationError =
    static_cast<OSStatus>(quellix::fourCC("unop"));
inline constexpr OSStatus kAudioDevicePermissionsError =
    static_cast<OSStatus>(quellix::fourCC("!hog"));

// Scopes and elements.
inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = quellix::fourCC("glob");
inline constexpr AudioObjectPropertyScope kAudioDevicePropertyScopeInput = quellix::fourCC("inpt");
inline constexpr AudioObjectPropertyScope kAudioDevicePropertyScopeOutput = quellix::fourCC("outp");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

// Selectors.
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList =
    quellix::fourCC("prs#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices =
    quellix::fourCC("dev#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyTapList =
    quellix::fourCC("tps#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultOutputDevice =
    quellix::fourCC("dOut");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyPID = quellix::fourCC("ppid");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyBundleID =
    quellix::fourCC("pbid");
// Ours: the name the process's streams give their application (a CFString, empty when none).
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyApplicationName =
    quellix::fourCC("qapn");
// Ours: where the process's output streams play, as the UID of an output device (a CFString;
// empty: the default output device). Setting it moves every output stream the process has or
// opens later onto that device. While no device has that UID they play on the default output
// device, and they go back once it is there again; an empty text moves them to the default
// output device and lets them follow it when it changes. Streams held by a muting tap stay on
// the tap and take the setting when it lets them go. Reading gives what was set.
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyOutputDeviceUID =
    quellix::fourCC("qpod");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunning =
    quellix::fourCC("pir?");
inline constexpr AudioObjectPropertySelector kAudioProcessPropertyIsRunningOutput =
    quellix::fourCC("piro");
// The name a person knows the object by (a CFString): a device's description.
inline constexpr AudioObjectPropertySelector kAudioObjectPropertyName = quellix::fourCC("lnam");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID =
    quellix::fourCC("uid ");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyNominalSampleRate =
    quellix::fourCC("nsrt");
inline constexpr AudioObjectPropertySelector kAudioTapPropertyFormat = quellix::fourCC("tfmt");
inline constexpr AudioObjectPropertySelector kAudioHardwareServiceDeviceProperty_VirtualMainVolume =
    quellix::fourCC("vmvc");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyMute = quellix::fourCC("mute");

// Stream format and buffers: interleaved samples, one buffer per stream.
inline constexpr UInt32 kAudioFormatLinearPCM = quellix::fourCC("lpcm");
inline constexpr UInt32 kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr UInt32 kAudioFormatFlagIsPacked = 1u << 3;

struct AudioStreamBasicDescription {
  Float64 mSampleRate;
  UInt32 mFormatID;
  UInt32 mFormatFlags;
  UInt32 mBytesPerPacket;
  UInt32 mFramesPerPacket;
  UInt32 mBytesPerFrame;
  UInt32 mChannelsPerFrame;
  UInt32 mBitsPerChannel;
  UInt32 mReserved;
};

struct AudioBuffer {
  UInt32 mNumberChannels;
  UInt32 mDataByteSize;
  void* mData;
};

// Core Audio's list ends in a variable-length array; a pointer keeps the same use without
// reaching past a declared bound.
struct AudioBufferList {
  UInt32 mNumberBuffers;
  AudioBuffer* mBuffers;
};

struct AudioTimeStamp {
  Float64 mSampleTime;
  std::uint64_t mHostTime;
};

using AudioDeviceIOBlock =
    std::function<void(const AudioTimeStamp* inNow, const AudioBufferList* inInputData,
                       const AudioTimeStamp* inInputTime, AudioBufferList* outOutputData,
                       const AudioTimeStamp* inOutputTime)>;

struct OpaqueAudioDeviceIOProcID;
using AudioDeviceIOProcID = OpaqueAudioDeviceIOProcID*;

// Describes a process tap.
enum CATapMuteBehavior : int { CATapUnmuted = 0, CATapMuted = 1, CATapMutedWhenTapped = 2 };

class CATapDescription {
 public:
  static CATapDescription stereoMixdownOfProcesses(std::vector<AudioObjectID> processes);

  const std::vector<AudioObjectID>& processes() const { return processes_; }
  bool isMixdown() const { return mixdown_; }
  bool isMono() const { return mono_; }

  const quellix::Uuid& UUID() const { return uuid_; }
  void setUUID(quellix::Uuid uuid) { uuid_ = uuid; }
  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }
  bool isPrivate() const { return private_; }
  void setPrivate(bool isPrivate) { private_ = isPrivate; }
  CATapMuteBehavior muteBehavior() const { return muteBehavior_; }
  void setMuteBehavior(CATapMuteBehavior behavior) { muteBehavior_ = behavior; }

 private:
  std::vector<AudioObjectID> processes_;
  bool mixdown_ = false;
  bool mono_ = false;
  quellix::Uuid uuid_ = quellix::Uuid::random();
  std::string name_;
  bool private_ = false;
  CATapMuteBehavior muteBehavior_ = CATapUnmuted;
};

// Aggregate devices are described by a property list: strings, numbers, Booleans, arrays and
// dictionaries.
using CFDictionary = nlohmann::json;

inline constexpr const char* kAudioAggregateDeviceNameKey = "name";
inline constexpr const char* kAudioAggregateDeviceUIDKey = "uid";
inline constexpr const char* kAudioAggregateDeviceMainSubDeviceKey = "master";
inline constexpr const char* kAudioAggregateDeviceIsPrivateKey = "private";
inline constexpr const char* kAudioAggregateDeviceIsStackedKey = "stacked";
inline constexpr const char* kAudioAggregateDeviceTapAutoStartKey = "tapautostart";
inline constexpr const char* kAudioAggregateDeviceSubDeviceListKey = "subdevices";
inline constexpr const char* kAudioAggregateDeviceTapListKey = "taps";
inline constexpr const char* kAudioSubDeviceUIDKey = "uid";
inline constexpr const char* kAudioSubTapUIDKey = "uid";
inline constexpr const char* kAudioSubTapDriftCompensationKey = "drift";

namespace quellix {

class AudioBackend;

// One audio system's hardware layer: Core Audio's operations, statuses and semantics, carried
// out by the backend it holds (the sound server, or the simulator in tests). The composition
// root owns the one instance and hands it to everything that talks to audio. Without a
// backend every call fails with kAudioHardwareNotRunningError. Main thread only, like the
// backend behind it.
class AudioHardware {
 public:
  explicit AudioHardware(std::shared_ptr<AudioBackend> backend);
  ~AudioHardware();
  AudioHardware(const AudioHardware&) = delete;
  AudioHardware& operator=(const AudioHardware&) = delete;

  // Properties.
  OSStatus AudioObjectGetPropertyDataSize(AudioObjectID inObjectID,
                                          const AudioObjectPropertyAddress* inAddress,
                                          UInt32 inQualifierDataSize, const void* inQualifierData,
                                          UInt32* outDataSize);
  OSStatus AudioObjectGetPropertyData(AudioObjectID inObjectID,
                                      const AudioObjectPropertyAddress* inAddress,
                                      UInt32 inQualifierDataSize, const void* inQualifierData,
                                      UInt32* ioDataSize, void* outData);
  OSStatus AudioObjectSetPropertyData(AudioObjectID inObjectID,
                                      const AudioObjectPropertyAddress* inAddress,
                                      UInt32 inQualifierDataSize, const void* inQualifierData,
                                      UInt32 inDataSize, const void* inData);
  bool AudioObjectHasProperty(AudioObjectID inObjectID,
                              const AudioObjectPropertyAddress* inAddress);
  OSStatus AudioObjectAddPropertyListenerBlock(AudioObjectID inObjectID,
                                               const AudioObjectPropertyAddress* inAddress,
                                               dispatch_queue_t inDispatchQueue,
                                               AudioObjectPropertyListenerBlock inListener);
  OSStatus AudioObjectRemovePropertyListenerBlock(AudioObjectID inObjectID,
                                                  const AudioObjectPropertyAddress* inAddress,
                                                  dispatch_queue_t inDispatchQueue,
                                                  AudioObjectPropertyListenerBlock inListener);

  // Taps, aggregate devices and IO procedures.
  OSStatus AudioHardwareCreateProcessTap(const CATapDescription* inDescription,
                                         AudioObjectID* outTapID);
  OSStatus AudioHardwareDestroyProcessTap(AudioObjectID inTapID);
  OSStatus AudioHardwareCreateAggregateDevice(const CFDictionary& inDescription,
                                              AudioObjectID* outDeviceID);
  OSStatus AudioHardwareDestroyAggregateDevice(AudioObjectID inDeviceID);
  OSStatus AudioDeviceCreateIOProcIDWithBlock(AudioDeviceIOProcID* outIOProcID,
                                              AudioObjectID inDevice,
                                              dispatch_queue_t inDispatchQueue,
                                              AudioDeviceIOBlock inIOBlock);
  OSStatus AudioDeviceStart(AudioObjectID inDevice, AudioDeviceIOProcID inProcID);
  OSStatus AudioDeviceStop(AudioObjectID inDevice, AudioDeviceIOProcID inProcID);
  OSStatus AudioDeviceDestroyIOProcID(AudioObjectID inDevice, AudioDeviceIOProcID inIOProcID);

 private:
  template <typename Call>
  OSStatus forward(Call&& call);

  std::shared_ptr<AudioBackend> backend_;
};

}  // namespace quellix
