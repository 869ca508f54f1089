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
#include "audio/OperationRunner.h"
#include "audio/PropertyValue.h"
#include "audio/SnapshotProperties.h"
#include "audio/pulse/PulseIOPath.h"
#include "audio/pulse/PulseModel.h"
#include "support/Logger.h"

#include <pulse/def.h>

struct pa_context;
struct pa_operation;
struct pa_threaded_mainloop;
struct pa_time_event;
struct pa_mainloop_api;
struct pa_sink_info;
struct pa_sink_input_info;
struct pa_source_output_info;
struct pa_client_info;
struct pa_server_info;
struct timeval;

namespace quellix {

// The audio hardware layer on a sound server that speaks the PulseAudio protocol (PulseAudio,
// or PipeWire through pipewire-pulse). One context on a threaded main loop keeps a model of
// the server current from its events; reads are answered from that model without a round
// trip. Writes and object creation never wait for the server: they update the model at once
// and leave the request to an operation runner, which reports a failure in the log and has
// the model re-read. A lost server is reconnected to by itself.
class PulseBackend final : public SnapshotBackend {
 public:
  struct Options {
    std::string server;  // empty: the usual one ($PULSE_SERVER, then the runtime dir)
    std::chrono::milliseconds startupWait{3000};
    std::chrono::milliseconds operationTimeout{2000};
    std::chrono::milliseconds retryInterval{1000};
  };

  // Starts connecting and waits up to `startupWait` for the first complete view of the server.
  static std::shared_ptr<PulseBackend> create(Options options, std::shared_ptr<LogSink> logs);
  ~PulseBackend() override;

  bool isConnected() const;
  std::shared_ptr<const pulse::AudioSnapshot> snapshot() const;

  // How many stream moves had to be repeated because the server did not carry them out.
  std::uint64_t repeatedMoves() const { return repeatedMoves_.load(); }
  // The IO statistics of a started aggregate device, if it has an IO path.
  std::optional<PulseIOPath::Statistics> ioStatistics(AudioObjectID aggregate) const;

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

 private:
  struct PendingReply;
  using Finish = OperationRunner::Finish;
  using InFlight = OperationRunner::InFlight;

  struct Tap {
    AudioObjectID id = kAudioObjectUnknown;
    std::string uuid;
    std::set<SInt32> pids;
    std::uint32_t module = pulse::kInvalidIndex;
    std::string sinkName;
    std::uint32_t sampleRate = 0;
    // Where each moved stream played before, to return it there.
    std::map<std::uint32_t, std::uint32_t> originalSinks;
  };
  struct IOProc {
    AudioDeviceIOBlock block;
    bool started = false;  // asked to run; its path may still be on its way
    std::unique_ptr<PulseIOPath> path;
  };
  struct Aggregate {
    AudioObjectID id = kAudioObjectUnknown;
    std::string uid;
    std::string mainSinkName;
    AudioObjectID tap = kAudioObjectUnknown;
    std::map<AudioDeviceIOProcID, IOProc> procs;
  };
  struct Move {
    bool inFlight = false;
    int attempts = 0;
    int failures = 0;
  };

  PulseBackend(Options options, std::shared_ptr<LogSink> logs);
  void startMainloop();
  bool waitForFirstSync();

  // On the main-loop thread, with its lock held.
  void connect();
  void dropContext();
  void armRetry(std::chrono::milliseconds delay);
  void onContextState(pa_context* context);
  void onSubscription(pa_context* context, unsigned eventType, std::uint32_t index);
  void requestEverything();
  // Asks for one object's record; the reply updates the model.
  void requestInfo(pa_context* context, pulse::PulseModel::Kind kind, std::uint32_t index);
  void listReplyFinished();
  void publish();
  void keepStreamsOnTaps();
  // Moves the streams of processes given an output device there, or to the default output
  // device while theirs is away.
  void keepStreamsRouted();
  void onRouteMoveDone(std::uint32_t sinkInput, bool success);
  void removeLeftovers();
  void removeAbandonedTapSinks();
  void onMoveDone(std::uint32_t sinkInput, bool success);

  // Operations, with the main loop's lock held (from any thread).
  void submit(const std::string& lane, OperationRunner::Operation operation);
  void armDeadline();
  // The runner's handle on an issued request; `reply` is the userdata it was issued with.
  InFlight track(pa_operation* operation, std::shared_ptr<PendingReply>* reply);
  std::shared_ptr<PendingReply>* replyFor(Finish finish,
                                          std::function<void(std::uint32_t)> onIndex = {});
  void writeSink(std::uint32_t sinkIndex, const std::string& what,
                 std::function<void(pulse::SinkInfo&)> optimistic,
                 std::function<pa_operation*(pa_context*, std::shared_ptr<PendingReply>*)> issue);
  InFlight takeDownTap(const Tap& tap, Finish finish);
  InFlight launchIO(AudioObjectID device, AudioDeviceIOProcID proc, Finish finish);
  static std::string tapLane(AudioObjectID tap);
  // Sends a process's streams to a device ("": the default output) from now on.
  OSStatus routeProcess(SInt32 pid, std::string deviceUID);

  // The latest snapshot for a reader, without a lock while it has not changed.
  const pulse::AudioSnapshot& currentSnapshot() const;
  std::optional<PropertyValue> propertyValue(AudioObjectID object,
                                             const AudioObjectPropertyAddress& address,
                                             OSStatus& status) const override;

  static void contextStateCallback(pa_context* context, void* userdata);
  static void subscriptionCallback(pa_context* context, pa_subscription_event_type_t eventType,
                                   std::uint32_t index, void* userdata);
  static void retryCallback(pa_mainloop_api* api, pa_time_event* event, const struct timeval* tv,
                            void* userdata);
  template <typename Info, auto Copy, auto Apply>
  static void infoCallback(pa_context* context, const Info* info, int eol, void* userdata);
  template <typename Info, auto Copy, auto Apply>
  static void listCallback(pa_context* context, const Info* info, int eol, void* userdata);
  static void serverInfoCallback(pa_context* context, const pa_server_info* info, void* userdata);
  static void successReply(pa_context* context, int success, void* userdata);
  static void indexReply(pa_context* context, std::uint32_t index, void* userdata);
  static void deadlineCallback(pa_mainloop_api* api, pa_time_event* event, const struct timeval* tv,
                               void* userdata);
  static void moveCallback(pa_context* context, int success, void* userdata);

  Options options_;
  pa_threaded_mainloop* mainloop_ = nullptr;

  // Main-loop thread state, guarded by the main loop's lock.
  pa_context* context_ = nullptr;
  pa_time_event* retryEvent_ = nullptr;
  pulse::PulseModel model_;
  int pendingListReplies_ = 0;
  bool ready_ = false;
  bool wasConnected_ = false;
  std::unique_ptr<OperationRunner> runner_;
  pa_time_event* deadlineEvent_ = nullptr;
  // Taps taken down before the server told us their module: their sinks go once they show.
  std::set<std::string> abandonedTapUUIDs_;

  std::map<std::uint32_t, Move> moves_;
  std::map<std::uint32_t, Move> routeMoves_;
  bool leftoversSwept_ = false;

  // Taps and aggregate devices: created on the main thread, read by the main-loop thread to
  // keep streams on their taps. Taken after the main loop's lock, never before it.
  mutable std::mutex objectsMutex_;
  std::map<AudioObjectID, Tap> taps_;
  std::map<AudioObjectID, Aggregate> aggregates_;
  // The output device UID each process's streams were sent to, by PID ("": the default); a
  // PID's entry goes with its last stream.
  std::map<SInt32, std::string> routes_;
  // Taps and aggregate devices that went with a lost connection: their owners' calls to stop
  // and destroy them succeed, since what they ask for has happened.
  std::set<AudioObjectID> lostWithServer_;
  std::uintptr_t lastIOProcID_ = 0;
  std::atomic<std::uint64_t> repeatedMoves_{0};

  mutable std::mutex snapshotMutex_;
  std::shared_ptr<const pulse::AudioSnapshot> snapshot_;
  std::atomic<std::uint64_t> snapshotVersion_{0};
  const std::uint64_t serial_;

  std::mutex syncMutex_;
  std::condition_variable syncCondition_;
  bool firstSyncDone_ = false;

  ListenerRegistry listeners_;
  Logger logger_;
};

}  // namespace quellix
