#include "audio/pulse/PulseModel.h"

#include <algorithm>

#include "support/Parsing.h"

namespace quellix::pulse {
namespace {

constexpr const char* kVerifiedPID = "pipewire.sec.pid";
constexpr const char* kReportedPID = "application.process.id";
constexpr const char* kSandboxAppID = "pipewire.access.portal.app_id";
constexpr const char* kApplicationID = "application.id";
constexpr const char* kApplicationName = "application.name";
constexpr const char* kDeviceDescription = "device.description";
// Removed indices remembered per kind of object, against late replies.
constexpr std::size_t kRemovedIndicesKept = 256;

const std::string* property(const Properties& properties, const char* key) {
  const auto found = properties.find(key);
  return found == properties.end() || found->second.empty() ? nullptr : &found->second;
}

// The stream's own property, else its client's.
const std::string* lookup(const StreamInfo& stream, const ClientInfo* client, const char* key) {
  if (const auto* value = property(stream.properties, key)) {
    return value;
  }
  return client != nullptr ? property(client->properties, key) : nullptr;
}

template <typename Object>
const Object* findByID(const std::vector<Object>& objects, AudioObjectID id) {
  const auto found =
      std::lower_bound(objects.begin(), objects.end(), id,
                       [](const Object& o, AudioObjectID value) { return o.id < value; });
  return found != objects.end() && found->id == id ? &*found : nullptr;
}

template <typename Objects>
std::vector<AudioObjectID> idsOf(const Objects& objects) {
  std::vector<AudioObjectID> ids;
  for (const auto& object : objects) {
    ids.push_back(object.id);
  }
  return ids;
}

Float32 averageVolume(const std::vector<std::uint32_t>& channelVolumes) {
  if (channelVolumes.empty()) {
    return 0.0f;
  }
  double sum = 0;
  for (const auto volume : channelVolumes) {
    sum += volume;
  }
  const double fraction = sum / static_cast<double>(channelVolumes.size()) / kVolumeNorm;
  return static_cast<Float32>(std::min(fraction, 1.0));
}

}  // namespace

const ProcessObject* AudioSnapshot::process(AudioObjectID id) const {
  return findByID(processes, id);
}

const DeviceObject* AudioSnapshot::device(AudioObjectID id) const {
  return findByID(devices, id);
}

const TapSink* AudioSnapshot::tapSinkWithUUID(const std::string& uuid) const {
  const auto found = std::find_if(tapSinks.begin(), tapSinks.end(),
                                  [&](const TapSink& sink) { return sink.uuid == uuid; });
  return found == tapSinks.end() ? nullptr : &*found;
}

const DeviceObject* AudioSnapshot::deviceWithUID(const std::string& uid) const {
  const auto found = std::find_if(devices.begin(), devices.end(),
                                  [&](const DeviceObject& device) { return device.uid == uid; });
  return found == devices.end() ? nullptr : &*found;
}

std::vector<PropertyChange> changesBetween(const AudioSnapshot& before,
                                           const AudioSnapshot& after) {
  std::vector<PropertyChange> changes;
  auto global = [](AudioObjectPropertySelector selector) {
    return AudioObjectPropertyAddress{selector, kAudioObjectPropertyScopeGlobal,
                                      kAudioObjectPropertyElementMain};
  };
  auto output = [](AudioObjectPropertySelector selector) {
    return AudioObjectPropertyAddress{selector, kAudioDevicePropertyScopeOutput,
                                      kAudioObjectPropertyElementMain};
  };
  if (idsOf(before.processes) != idsOf(after.processes)) {
    changes.push_back({kAudioObjectSystemObject, global(kAudioHardwarePropertyProcessObjectList)});
  }
  if (idsOf(before.devices) != idsOf(after.devices)) {
    changes.push_back({kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices)});
  }
  if (before.defaultOutput != after.defaultOutput) {
    changes.push_back(
        {kAudioObjectSystemObject, global(kAudioHardwarePropertyDefaultOutputDevice)});
  }
  for (const auto& process : after.processes) {
    const ProcessObject* old = before.process(process.id);
    if (old == nullptr) {
      continue;
    }
    if (old->running != process.running) {
      changes.push_back({process.id, global(kAudioProcessPropertyIsRunning)});
    }
    if (old->runningOutput != process.runningOutput) {
      changes.push_back({process.id, global(kAudioProcessPropertyIsRunningOutput)});
    }
  }
  for (const auto& device : after.devices) {
    const DeviceObject* old = before.device(device.id);
    if (old == nullptr) {
      continue;
    }
    if (old->volume != device.volume) {
      changes.push_back({device.id, output(kAudioHardwareServiceDeviceProperty_VirtualMainVolume)});
    }
    if (old->mute != device.mute) {
      changes.push_back({device.id, output(kAudioDevicePropertyMute)});
    }
    if (old->name != device.name) {
      changes.push_back({device.id, global(kAudioObjectPropertyName)});
    }
  }
  return changes;
}

std::optional<SInt32> streamPID(const StreamInfo& stream, const ClientInfo* client,
                                std::optional<SInt32> proxyPID) {
  for (const char* key : {kVerifiedPID, kReportedPID}) {
    const auto* value = lookup(stream, client, key);
    if (value == nullptr) {
      continue;
    }
    const auto pid = parseStrictInt32(*value);
    const bool isProxy = key == kVerifiedPID && pid == proxyPID;
    if (pid && *pid > 0 && !isProxy) {
      return pid;
    }
  }
  return std::nullopt;
}

std::string streamBundleID(const StreamInfo& stream, const ClientInfo* client) {
  for (const char* key : {kSandboxAppID, kApplicationID}) {
    if (const auto* value = lookup(stream, client, key)) {
      return *value;
    }
  }
  return {};
}

void PulseModel::announce(Kind kind, std::uint32_t index) {
  removed(kind).erase(index);
}

void PulseModel::remove(Kind kind, std::uint32_t index) {
  switch (kind) {
    case Kind::sink:
      sinks_.erase(index);
      break;
    case Kind::sinkInput:
      sinkInputs_.erase(index);
      break;
    case Kind::sourceOutput:
      sourceOutputs_.erase(index);
      break;
    case Kind::client:
      clients_.erase(index);
      break;
  }
  // Only a reply already in flight can name a removed index; the server hands out indices in
  // ascending order, so the oldest removals are no longer needed.
  auto& indices = removed(kind);
  indices.insert(index);
  if (indices.size() > kRemovedIndicesKept) {
    indices.erase(indices.begin());
  }
}

template <typename Info>
void PulseModel::apply(std::map<std::uint32_t, Info>& table, Kind kind, Info info) {
  if (removed(kind).count(info.index) == 0) {
    const std::uint32_t index = info.index;
    table[index] = std::move(info);
  }
}

void PulseModel::applySink(SinkInfo sink) {
  apply(sinks_, Kind::sink, std::move(sink));
}

void PulseModel::applySinkInput(StreamInfo stream) {
  apply(sinkInputs_, Kind::sinkInput, std::move(stream));
}

void PulseModel::applySourceOutput(StreamInfo stream) {
  apply(sourceOutputs_, Kind::sourceOutput, std::move(stream));
}

void PulseModel::applyClient(ClientInfo client) {
  apply(clients_, Kind::client, std::move(client));
}

void PulseModel::setDefaultSinkName(std::string name) {
  defaultSinkName_ = std::move(name);
}

void PulseModel::setOwnClient(std::uint32_t index, SInt32 ownPID) {
  ownClient_ = index;
  ownPID_ = ownPID;
}

std::optional<SInt32> PulseModel::proxyPID() const {
  const ClientInfo* own = client(ownClient_);
  if (own == nullptr) {
    return std::nullopt;
  }
  const auto* verified = property(own->properties, kVerifiedPID);
  const auto pid = verified != nullptr ? parseStrictInt32(*verified) : std::nullopt;
  return pid && *pid != ownPID_ ? pid : std::nullopt;
}

void PulseModel::reset() {
  sinks_.clear();
  sinkInputs_.clear();
  sourceOutputs_.clear();
  clients_.clear();
  for (auto& indices : removed_) {
    indices.clear();
  }
  defaultSinkName_.clear();
  ownClient_ = kInvalidIndex;
  processIDs_.clear();
  deviceIDs_.clear();
}

const ClientInfo* PulseModel::client(std::uint32_t index) const {
  const auto found = clients_.find(index);
  return found == clients_.end() ? nullptr : &found->second;
}

AudioSnapshot PulseModel::snapshot(bool connected) {
  AudioSnapshot snapshot;
  snapshot.connected = connected;

  // Processes: one per PID that owns streams, in the order of their first stream.
  std::map<SInt32, ProcessObject> byPID;
  const auto proxy = proxyPID();
  auto attribute = [&](const StreamInfo& stream, bool isSinkInput) {
    const ClientInfo* owner = client(stream.client);
    const auto pid = streamPID(stream, owner, proxy);
    if (isSinkInput) {
      snapshot.sinkInputs.push_back({stream.index, pid.value_or(0), stream.device,
                                     stream.properties.count(kIOStreamProperty) > 0});
    }
    if (!pid) {
      return;  // its client may not be known yet: attributed once it is
    }
    ProcessObject& process = byPID[*pid];
    process.pid = *pid;
    if (process.bundleID.empty()) {
      process.bundleID = streamBundleID(stream, owner);
    }
    if (process.applicationName.empty()) {
      if (const auto* name = lookup(stream, owner, kApplicationName)) {
        process.applicationName = *name;
      }
    }
    process.running = process.running || !stream.corked;
    if (isSinkInput) {
      process.sinkInputs.push_back(stream.index);
      process.runningOutput = process.runningOutput || !stream.corked;
    } else {
      process.sourceOutputs.push_back(stream.index);
    }
  };
  for (const auto& entry : sinkInputs_) {
    attribute(entry.second, true);
  }
  for (const auto& entry : sourceOutputs_) {
    attribute(entry.second, false);
  }
  std::map<SInt32, AudioObjectID> processIDs;
  for (auto& [pid, process] : byPID) {
    const auto known = processIDs_.find(pid);
    process.id = known != processIDs_.end() ? known->second : allocateObjectID();
    processIDs[pid] = process.id;
    snapshot.processes.push_back(std::move(process));
  }
  processIDs_ = std::move(processIDs);

  std::map<std::uint32_t, AudioObjectID> deviceIDs;
  for (const auto& [index, sink] : sinks_) {
    if (const auto owner = sink.properties.find(kTapOwnerProperty);
        owner != sink.properties.end()) {
      TapSink tap;
      tap.index = index;
      tap.name = sink.name;
      tap.ownerModule = sink.ownerModule;
      tap.ownerPID = parseStrictInt32(owner->second).value_or(0);
      if (const auto* start = property(sink.properties, kTapOwnerStartProperty)) {
        tap.ownerStart = *start;
      }
      if (const auto* uuid = property(sink.properties, kTapUUIDProperty)) {
        tap.uuid = *uuid;
      }
      tap.sampleRate = sink.sampleRate;
      snapshot.tapSinks.push_back(std::move(tap));
      continue;  // our taps are not devices
    }
    const auto known = deviceIDs_.find(index);
    DeviceObject device;
    device.id = known != deviceIDs_.end() ? known->second : allocateObjectID();
    device.sinkIndex = index;
    device.uid = sink.name;
    const auto* description = property(sink.properties, kDeviceDescription);
    device.name = description != nullptr ? *description : sink.name;
    device.sampleRate = sink.sampleRate;
    device.volume = averageVolume(sink.channelVolumes);
    device.mute = sink.mute;
    device.channelVolumes = sink.channelVolumes;
    deviceIDs[index] = device.id;
    if (sink.name == defaultSinkName_) {
      snapshot.defaultOutput = device.id;
    }
    snapshot.devices.push_back(std::move(device));
  }
  deviceIDs_ = std::move(deviceIDs);

  auto byID = [](const auto& a, const auto& b) { return a.id < b.id; };
  std::sort(snapshot.processes.begin(), snapshot.processes.end(), byID);
  std::sort(snapshot.devices.begin(), snapshot.devices.end(), byID);
  return snapshot;
}

}  // namespace quellix::pulse
