#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/ListenerRegistry.h"
#include "audio/PropertyValue.h"
#include "audio/SnapshotProperties.h"
#include "audio/pulse/PulseModel.h"
#include "support/Logger.h"

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;
struct pw_stream;
struct spa_source;

namespace quellix {

// The audio hardware layer on PipeWire itself. The registry's nodes, links, clients, devices
// and the `default` metadata are translated into the same records the PulseAudio backend
// keeps, so processes, devices and the default output mean the same on both. A tap is a
// virtual sink of our own in the graph; its IO plays what that sink captures to the output in
// the same graph cycle, with the IO block run in the realtime process callback.
class PipeWireBackend final : public SnapshotBackend {
 public:
  struct Options {
    std::chrono::milliseconds startupWait{3000};
    std::chrono::milliseconds operationTimeout{2000};
  };

  // Connects to the usual PipeWire server and waits up to `startupWait` for a complete view.
  // Without a server the backend answers that the hardware is not running.
  static std::shared_ptr<PipeWireBackend> create(Options options, std::shared_ptr<LogSink> logs);
  ~PipeWireBackend() override;

  bool isConnected() const;
  std::shared_ptr<const pulse::AudioSnapshot> snapshot() const;

  OSStatus setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           UInt32 qualifierSize, const void* qualifier, UInt32 size,
                           const void* data) override;
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

  struct Graph;  // the registry's objects, on the loop thread
  struct TapIO;  // a tap's realtime state, on the data thread

 private:
  friend struct GraphEvents;
  struct Tap {
    AudioObjectID id = kAudioObjectUnknown;
    std::string uuid;
    std::string nodeName;
    std::set<SInt32> pids;
    std::uint32_t sampleRate = 0;
    std::unique_ptr<TapIO> io;
    // Each moved stream's own target before, restored when it goes back.
    std::map<std::uint32_t, std::optional<std::string>> originalTargets;
  };
  struct Aggregate {
    AudioObjectID id = kAudioObjectUnknown;
    std::string uid;
    std::string mainSinkName;
    AudioObjectID tap = kAudioObjectUnknown;
    std::map<AudioDeviceIOProcID, std::shared_ptr<AudioDeviceIOBlock>> procs;
    AudioDeviceIOProcID running = nullptr;
  };

  PipeWireBackend(Options options, std::shared_ptr<LogSink> logs);
  bool connect();

  // On the loop thread, with its lock held.
  void schedulePublish();
  void publish();
  void keepStreamsOnTaps();
  void dropLinksBeside(std::uint32_t stream, std::uint32_t tapNode);
  void setTarget(std::uint32_t stream, const std::optional<std::string>& target, bool ours);

  bool waitForSnapshot(const std::function<bool(const pulse::AudioSnapshot&)>& condition,
                       std::chrono::milliseconds timeout);
  // A round trip to the server: what we sent before has been carried out.
  bool roundTrip();
  std::optional<PropertyValue> propertyValue(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             OSStatus& status) const override;
  OSStatus returnStreams(Tap& tap);
  void stopIO(Tap& tap);

  static void onPublishEvent(void* data, std::uint64_t count);

  Options options_;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  std::unique_ptr<Graph> graph_;
  spa_source* publishEvent_ = nullptr;

  // Guarded by the loop's lock.
  pulse::PulseModel model_;
  std::map<AudioObjectID, Tap> taps_;
  std::map<AudioObjectID, Aggregate> aggregates_;
  std::set<std::uint32_t> refusedMoves_;
  std::uintptr_t lastIOProcID_ = 0;

  mutable std::mutex snapshotMutex_;
  std::condition_variable snapshotChanged_;
  std::shared_ptr<const pulse::AudioSnapshot> snapshot_;
  // Ids of our taps and aggregates for readers off the loop thread.
  mutable std::mutex objectsMutex_;
  std::map<AudioObjectID, std::uint32_t> tapRates_;
  std::map<AudioObjectID, std::pair<std::string, std::uint32_t>> aggregateInfo_;

  ListenerRegistry listeners_;
  Logger logger_;
};

}  // namespace quellix
