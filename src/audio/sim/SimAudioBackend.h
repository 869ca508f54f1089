#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/AudioBackend.h"
#include "audio/ListenerRegistry.h"
#include "audio/PropertyValue.h"

namespace quellix {

// An in-memory audio system for tests: objects are plain data, every scripted change fires the
// listeners a real system would, any call or property can be made to fail, and render() runs
// one IO cycle so a test can hear what a listener would.
class SimAudioBackend final : public AudioBackend {
 public:
  struct Process {
    SInt32 pid = 0;
    std::string bundleID;
    std::string applicationName;  // "qapn"
    bool running = true;          // "pir?": some input or output is running
    bool runningOutput = true;    // "piro"
    float level = 0.5f;           // the constant sample value it plays on every channel
    std::string outputDeviceUID;  // "qpod"
  };

  struct Device {
    std::string uid;
    std::string name;  // "lnam"
    std::optional<Float64> sampleRate = 48000.0;
    bool hasVolume = true;
    Float32 volume = 1.0f;
    UInt32 muteValue = 0;
    UInt32 channels = 2;
  };

  enum class Call {
    getPropertyDataSize,
    getPropertyData,
    setPropertyData,
    addPropertyListener,
    removePropertyListener,
    createProcessTap,
    destroyProcessTap,
    createAggregateDevice,
    destroyAggregateDevice,
    createIOProcID,
    startDevice,
    stopDevice,
    destroyIOProcID,
  };

  struct TapState {
    AudioObjectID id;
    CATapDescription description;
  };

  struct AggregateState {
    AudioObjectID id;
    CFDictionary description;
    std::size_t ioProcs;
    std::size_t startedIOProcs;
  };

  SimAudioBackend();

  // Scripting. Each change fires the listeners of the properties it changes.
  AudioObjectID addProcess(Process process);
  void removeProcess(AudioObjectID process);
  void setProcessRunning(AudioObjectID process, bool running, bool runningOutput);
  void setProcessLevel(AudioObjectID process, float level);
  AudioObjectID addDevice(Device device);
  void removeDevice(AudioObjectID device);
  void setDefaultOutputDevice(AudioObjectID device);
  void setDeviceVolume(AudioObjectID device, Float32 volume);
  void setDeviceMuteValue(AudioObjectID device, UInt32 muteValue);

  // Fault injection: the call fails with `status` until clearFaults(). A property fault applies
  // to one selector of one object (kAudioObjectUnknown: any object) for the given call.
  void failCall(Call call, OSStatus status);
  void failProperty(AudioObjectID object, AudioObjectPropertySelector selector, Call call,
                    OSStatus status);
  // Makes the size query of a property report `size` bytes, whatever it holds.
  void overrideReportedSize(AudioObjectID object, AudioObjectPropertySelector selector,
                            UInt32 size);
  void clearFaults();

  // Inspection.
  std::size_t callCount(Call call) const;
  std::size_t listenerCount(AudioObjectID object, const AudioObjectPropertyAddress& address) const;
  std::vector<TapState> taps() const;
  std::vector<AggregateState> aggregates() const;
  std::optional<Device> device(AudioObjectID device) const;

  // One IO cycle of `frames` frames: every process plays its level into its output device (the
  // default one unless it chose one that is there) unless a muting tap diverts it; every started IO
  // block gets its tap's stereo mixdown as input and its output is added to the aggregate's main
  // sub-device. Returns each output device's interleaved samples.
  std::map<AudioObjectID, std::vector<float>> render(UInt32 frames);

  // AudioBackend
  OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               UInt32 qualifierSize, const void* qualifier,
                               UInt32& outSize) override;
  OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 qualifierSize, const void* qualifier, UInt32& ioSize,
                           void* outData) override;
  OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 qualifierSize, const void* qualifier, UInt32 size,
                           const void* data) override;
  bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) override;
  OSStatus addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               MainQueue* queue,
                               AudioObjectPropertyListenerBlock listener) override;
  OSStatus removePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                  MainQueue* queue,
                                  const AudioObjectPropertyListenerBlock& listener) override;
  OSStatus createProcessTap(const CATapDescription& description, AudioObjectID& outTap) override;
  OSStatus destroyProcessTap(AudioObjectID tap) override;
  OSStatus createAggregateDevice(const CFDictionary& description,
                                 AudioObjectID& outDevice) override;
  OSStatus destroyAggregateDevice(AudioObjectID device) override;
  OSStatus createIOProcID(AudioObjectID device, MainQueue* queue, AudioDeviceIOBlock block,
                          AudioDeviceIOProcID& outProc) override;
  OSStatus startDevice(AudioObjectID device, AudioDeviceIOProcID proc) override;
  OSStatus stopDevice(AudioObjectID device, AudioDeviceIOProcID proc) override;
  OSStatus destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID proc) override;

 private:
  struct IOProc {
    AudioDeviceIOBlock block;
    bool started = false;
  };
  struct Aggregate {
    CFDictionary description;
    std::string uid;
    std::string mainSubDeviceUID;
    std::vector<AudioObjectID> taps;
    std::map<AudioDeviceIOProcID, IOProc> ioProcs;
  };
  AudioObjectID nextObjectID();
  std::optional<OSStatus> injectedFault(Call call, AudioObjectID object,
                                        AudioObjectPropertySelector selector);
  std::optional<OSStatus> injectedFault(Call call);
  std::optional<PropertyValue> propertyValue(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             OSStatus& status) const;
  std::vector<AudioObjectID> deviceList() const;
  std::optional<AudioObjectID> deviceWithUID(const std::string& uid) const;
  bool isMutedByTap(AudioObjectID process) const;
  AudioObjectID outputDeviceOf(const Process& process) const;
  void fire(AudioObjectID object, AudioObjectPropertySelector selector,
            AudioObjectPropertyScope scope = kAudioObjectPropertyScopeGlobal);

  mutable std::recursive_mutex mutex_;
  AudioObjectID lastObjectID_ = 100;
  std::uintptr_t lastIOProcID_ = 0;
  std::map<AudioObjectID, Process> processes_;
  std::map<AudioObjectID, Device> devices_;
  std::map<AudioObjectID, CATapDescription> taps_;
  std::map<AudioObjectID, Aggregate> aggregates_;
  AudioObjectID defaultOutput_ = kAudioObjectUnknown;
  ListenerRegistry listeners_;
  std::map<Call, OSStatus> callFaults_;
  std::map<std::tuple<AudioObjectID, AudioObjectPropertySelector, Call>, OSStatus> propertyFaults_;
  std::map<std::pair<AudioObjectID, AudioObjectPropertySelector>, UInt32> reportedSizes_;
  std::map<Call, std::size_t> callCounts_;
};

}  // namespace quellix
