#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/AudioHardware.h"

namespace quellix::pulse {

using Properties = std::map<std::string, std::string>;

inline constexpr std::uint32_t kInvalidIndex = UINT32_MAX;
inline constexpr std::uint32_t kVolumeNorm = 0x10000U;

// Properties of our private sinks: the owning process (PID and start time, so a reused PID is
// no owner) and the tap's UUID. Such sinks are taps, not output devices.
inline constexpr const char* kTapOwnerProperty = "quellix.tap.owner";
inline constexpr const char* kTapOwnerStartProperty = "quellix.tap.owner-start";
inline constexpr const char* kTapUUIDProperty = "quellix.tap.uuid";
// Marks our own IO streams, which are never moved onto a tap.
inline constexpr const char* kIOStreamProperty = "quellix.io";

// Copies of the server's records, taken inside libpulse's callbacks.
struct SinkInfo {
  std::uint32_t index = kInvalidIndex;
  std::string name;
  std::uint32_t sampleRate = 0;
  std::vector<std::uint32_t> channelVolumes;
  bool mute = false;
  std::uint32_t ownerModule = kInvalidIndex;
  Properties properties;
};

struct StreamInfo {
  std::uint32_t index = kInvalidIndex;
  std::uint32_t client = kInvalidIndex;
  std::uint32_t device = kInvalidIndex;  // sink of a sink input, source of a source output
  bool corked = false;
  std::uint32_t ownerModule = kInvalidIndex;
  Properties properties;
};

struct ClientInfo {
  std::uint32_t index = kInvalidIndex;
  Properties properties;
};

// What the hardware layer shows of the server at one moment.
struct ProcessObject {
  AudioObjectID id = kAudioObjectUnknown;
  SInt32 pid = 0;
  std::string bundleID;
  std::string applicationName;  // what its first stream that says calls its application
  bool running = false;         // some stream is not corked
  bool runningOutput = false;   // some sink input is not corked
  std::vector<std::uint32_t> sinkInputs;
  std::vector<std::uint32_t> sourceOutputs;
};

struct DeviceObject {
  AudioObjectID id = kAudioObjectUnknown;
  std::uint32_t sinkIndex = kInvalidIndex;
  std::string uid;
  std::string name;  // the sink's description, else its name
  Float64 sampleRate = 0;
  Float32 volume = 0;
  bool mute = false;
  std::vector<std::uint32_t> channelVolumes;
};

struct TapSink {
  std::uint32_t index = kInvalidIndex;
  std::string name;
  std::string uuid;
  std::uint32_t ownerModule = kInvalidIndex;
  SInt32 ownerPID = 0;
  std::string ownerStart;
  std::uint32_t sampleRate = 0;
};

struct SinkInputPlacement {
  std::uint32_t index = kInvalidIndex;
  SInt32 pid = 0;  // 0: unknown
  std::uint32_t sink = kInvalidIndex;
  bool isOurIO = false;
};

struct AudioSnapshot {
  bool connected = false;
  std::vector<TapSink> tapSinks;
  std::vector<SinkInputPlacement> sinkInputs;
  std::vector<ProcessObject> processes;  // ascending id
  std::vector<DeviceObject> devices;     // ascending id
  AudioObjectID defaultOutput = kAudioObjectUnknown;

  const ProcessObject* process(AudioObjectID id) const;
  const DeviceObject* device(AudioObjectID id) const;
  const DeviceObject* deviceWithUID(const std::string& uid) const;
  const TapSink* tapSinkWithUUID(const std::string& uuid) const;
};

struct PropertyChange {
  AudioObjectID object;
  AudioObjectPropertyAddress address;
  friend bool operator==(const PropertyChange&, const PropertyChange&) = default;
};

// The listener notifications that lead from one snapshot to the next.
std::vector<PropertyChange> changesBetween(const AudioSnapshot& before, const AudioSnapshot& after);

// The PID that owns a stream: the one the server verified from the socket where it gives one,
// else the one the client reports (a sandboxed client reports its PID inside the sandbox).
// pipewire-pulse verifies its own connection, not the client's: `proxyPID`, the verified PID
// its clients share, is never taken for the client's.
std::optional<SInt32> streamPID(const StreamInfo& stream, const ClientInfo* client,
                                std::optional<SInt32> proxyPID = std::nullopt);
// The sandbox's application id where there is one, else the application's own id.
std::string streamBundleID(const StreamInfo& stream, const ClientInfo* client);

// The server's sinks, streams and clients, kept current from its events, and the audio
// objects derived from them. Object ids stay stable while their PID or sink exists and are
// never reused, also not across reconnections.
class PulseModel {
 public:
  enum class Kind { sink, sinkInput, sourceOutput, client };

  // The server announced a new object: an index it removed earlier may be in use again.
  void announce(Kind kind, std::uint32_t index);
  // The server removed an object.
  void remove(Kind kind, std::uint32_t index);

  void applySink(SinkInfo sink);
  void applySinkInput(StreamInfo stream);
  void applySourceOutput(StreamInfo stream);
  void applyClient(ClientInfo client);
  void setDefaultSinkName(std::string name);
  // Our own connection's client: what the server verified of it tells a proxy apart.
  void setOwnClient(std::uint32_t index, SInt32 ownPID);

  // A new connection: every object of the old one is gone.
  void reset();

  AudioSnapshot snapshot(bool connected);
  AudioObjectID allocateObjectID() { return nextObjectID_++; }

  const std::map<std::uint32_t, SinkInfo>& sinks() const { return sinks_; }
  const std::map<std::uint32_t, StreamInfo>& sinkInputs() const { return sinkInputs_; }
  const std::map<std::uint32_t, StreamInfo>& sourceOutputs() const { return sourceOutputs_; }
  const ClientInfo* client(std::uint32_t index) const;
  std::optional<SInt32> proxyPID() const;
  const std::string& defaultSinkName() const { return defaultSinkName_; }

 private:
  // Applies a record unless the server removed its index meanwhile: an info reply still in
  // flight must not bring an object back.
  template <typename Info>
  void apply(std::map<std::uint32_t, Info>& table, Kind kind, Info info);
  std::set<std::uint32_t>& removed(Kind kind) { return removed_[static_cast<int>(kind)]; }

  std::map<std::uint32_t, SinkInfo> sinks_;
  std::map<std::uint32_t, StreamInfo> sinkInputs_;
  std::map<std::uint32_t, StreamInfo> sourceOutputs_;
  std::map<std::uint32_t, ClientInfo> clients_;
  std::set<std::uint32_t> removed_[4];
  std::string defaultSinkName_;
  std::uint32_t ownClient_ = kInvalidIndex;
  SInt32 ownPID_ = 0;
  std::map<SInt32, AudioObjectID> processIDs_;
  std::map<std::uint32_t, AudioObjectID> deviceIDs_;
  AudioObjectID nextObjectID_ = 2;  // 1 is the system object
};

}  // namespace quellix::pulse
