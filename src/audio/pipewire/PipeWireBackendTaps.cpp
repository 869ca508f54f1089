// Taps as virtual sinks in the graph, their streams' moves, aggregate devices and their IO.
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "audio/pipewire/PipeWireBackend.h"
#include "audio/pipewire/PipeWireParts.h"
#include "audio/pulse/LeftoverTaps.h"

namespace quellix {

namespace {

constexpr auto kTapPlacementWait = std::chrono::milliseconds(1000);

std::string sanitizedLabel(const std::string& label) {
  std::string clean;
  for (const char c : label) {
    if (c != '\n' && c != '"') {
      clean += c;
    }
  }
  return clean;
}

const spa_pod* audioFormat(spa_pod_builder& builder, std::uint32_t rate) {
  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_F32;
  info.rate = rate;
  info.channels = pipewire::kChannels;
  info.position[0] = SPA_AUDIO_CHANNEL_FL;
  info.position[1] = SPA_AUDIO_CHANNEL_FR;
  return spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
}

// What keeps WirePlumber from remembering anything about our nodes, or making one of them the
// default output.
void addSessionHygiene(pw_properties* properties) {
  pw_properties_set(properties, "state.restore-props", "false");
  pw_properties_set(properties, "state.restore-target", "false");
  pw_properties_set(properties, "priority.session", "0");
  pw_properties_set(properties, "priority.driver", "0");
}

}  // namespace

namespace {

const pw_stream_events& captureEvents() {
  static const pw_stream_events events = [] {
    pw_stream_events e{};
    e.version = PW_VERSION_STREAM_EVENTS;
    e.process = PipeWireBackend::TapIO::onCaptureProcess;
    return e;
  }();
  return events;
}

struct IOChange {
  PipeWireBackend::TapIO* io;
  pw_stream* playback;
  const AudioDeviceIOBlock* block;
};

int applyIOChange(spa_loop*, bool, std::uint32_t, const void* data, std::size_t, void*) {
  const auto* change = static_cast<const IOChange*>(data);
  change->io->livePlayback = change->playback;
  change->io->block = change->block;
  return 0;
}

// Changes what the data thread plays, and returns once it does.
void changeIO(pw_context* context, const IOChange& change) {
  pw_loop* dataLoop = pw_data_loop_get_loop(pw_context_get_data_loop(context));
  pw_loop_invoke(dataLoop, applyIOChange, 0, &change, sizeof change, true, nullptr);
}

// The capture side triggers the playback side only while that streams: a node triggered
// before the graph activated it, or after, stalls its driver's whole cycle.
void onPlaybackState(void* data, pw_stream_state, pw_stream_state state, const char*) {
  auto* io = static_cast<PipeWireBackend::TapIO*>(data);
  const bool streaming = state == PW_STREAM_STATE_STREAMING && io->heldBlock != nullptr;
  changeIO(io->context,
           {io, streaming ? io->playback : nullptr, streaming ? io->heldBlock.get() : nullptr});
}

const pw_stream_events& playbackEvents() {
  static const pw_stream_events events = [] {
    pw_stream_events e{};
    e.version = PW_VERSION_STREAM_EVENTS;
    e.process = PipeWireBackend::TapIO::onPlaybackProcess;
    e.state_changed = onPlaybackState;
    return e;
  }();
  return events;
}

}  // namespace

void PipeWireBackend::setTarget(std::uint32_t stream, const std::optional<std::string>& target,
                                bool ours) {
  if (graph_->metadata == nullptr) {
    return;
  }
  // WirePlumber remembers a stream's last target.object per application, and our node would
  // outlive itself there: an application that ends on a tap would look for it at its next
  // start. A target.node of -1 after it makes WirePlumber forget the remembered target, while
  // target.object alone decides where the stream plays. Going back, target.node is cleared
  // first, so the stream's own target is what WirePlumber remembers last.
  if (ours) {
    pw_metadata_set_property(graph_->metadata, stream, "target.object", "Spa:Id", target->c_str());
    pw_metadata_set_property(graph_->metadata, stream, "target.node", "Spa:Id", "-1");
  } else {
    pw_metadata_set_property(graph_->metadata, stream, "target.node", nullptr, nullptr);
    pw_metadata_set_property(graph_->metadata, stream, "target.object", target ? "Spa:Id" : nullptr,
                             target ? target->c_str() : nullptr);
  }
  if (target) {
    graph_->targets[stream] = *target;
  } else {
    graph_->targets.erase(stream);
  }
}

void PipeWireBackend::dropLinksBeside(std::uint32_t stream, std::uint32_t tapNode) {
  // WirePlumber 0.4, asked to move a stream it is still linking, may link it to the new
  // target and keep the old link: the stream would play on the output beside the tap. Once
  // the tap has it, its other links to sinks go.
  bool onTap = false;
  std::vector<std::uint32_t> others;
  for (const auto& [id, link] : graph_->links) {
    if (link.outputNode != stream) {
      continue;
    }
    const auto* input = graph_->node(link.inputNode);
    if (link.inputNode == tapNode) {
      onTap = true;
    } else if (input != nullptr && input->mediaClass == "Audio/Sink") {
      others.push_back(id);
    }
  }
  if (onTap) {
    for (const std::uint32_t link : others) {
      pw_registry_destroy(graph_->registry, link);
    }
  }
}

void PipeWireBackend::keepStreamsOnTaps() {
  if (taps_.empty()) {
    return;
  }
  const auto current = snapshot();
  for (const auto& placement : current->sinkInputs) {
    if (placement.isOurIO || placement.pid == 0) {
      continue;
    }
    auto tap = std::find_if(taps_.begin(), taps_.end(), [&](const auto& entry) {
      return entry.second.pids.count(placement.pid) > 0;
    });
    if (tap == taps_.end()) {
      continue;
    }
    const auto* sink = current->tapSinkWithUUID(tap->second.uuid);
    const auto* captureNode = sink != nullptr ? graph_->node(sink->index) : nullptr;
    const auto* streamNode = graph_->node(placement.index);
    if (captureNode == nullptr || streamNode == nullptr) {
      continue;
    }
    const auto serial = captureNode->properties.find(PW_KEY_OBJECT_SERIAL);
    const auto target = graph_->targets.find(placement.index);
    if (serial == captureNode->properties.end()) {
      continue;
    }
    if (target != graph_->targets.end() && target->second == serial->second) {
      dropLinksBeside(placement.index, sink->index);
      continue;
    }
    const auto dontMove = streamNode->properties.find("node.dont-move");
    if (dontMove != streamNode->properties.end() && dontMove->second == "true") {
      if (refusedMoves_.insert(placement.index).second) {
        logger_.error("Stream #" + std::to_string(placement.index) +
                      " refuses to be moved (node.dont-move); it stays audible");
      }
      continue;
    }
    tap->second.originalTargets.try_emplace(placement.index,
                                            target != graph_->targets.end()
                                                ? std::optional<std::string>(target->second)
                                                : std::nullopt);
    setTarget(placement.index, serial->second, true);
  }
}

OSStatus PipeWireBackend::createProcessTap(const CATapDescription& description,
                                           AudioObjectID& outTap) {
  const auto current = snapshot();
  if (!current->connected) {
    return kAudioHardwareNotRunningError;
  }
  Tap tap;
  for (const AudioObjectID object : description.processes()) {
    const auto* process = current->process(object);
    if (process == nullptr) {
      return kAudioHardwareBadObjectError;
    }
    tap.pids.insert(process->pid);
  }
  tap.uuid = description.UUID().uuidString();
  tap.nodeName = "quellix.tap." + tap.uuid;
  const auto* output = current->device(current->defaultOutput);
  tap.sampleRate = output != nullptr && output->sampleRate > 0
                       ? static_cast<std::uint32_t>(output->sampleRate)
                       : 48000;
  tap.io = std::make_unique<TapIO>();
  {
    LoopLock lock(loop_);
    pw_properties* properties = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CLASS, "Audio/Sink", PW_KEY_NODE_NAME,
        tap.nodeName.c_str(), PW_KEY_NODE_DESCRIPTION, sanitizedLabel(description.name()).c_str(),
        PW_KEY_NODE_GROUP, tap.nodeName.c_str(), PW_KEY_NODE_VIRTUAL, "true", PW_KEY_AUDIO_CHANNELS,
        "2", SPA_KEY_AUDIO_POSITION, "FL,FR", pulse::kTapUUIDProperty, tap.uuid.c_str(), nullptr);
    pw_properties_setf(properties, PW_KEY_AUDIO_RATE, "%u", tap.sampleRate);
    pw_properties_setf(properties, pulse::kTapOwnerProperty, "%d", static_cast<int>(::getpid()));
    pw_properties_set(properties, pulse::kTapOwnerStartProperty,
                      pulse::processStartTime(::getpid()).c_str());
    addSessionHygiene(properties);
    // WirePlumber 0.4 stores the volume of every sink without routes under its name, whatever
    // state.restore-props says (it compares the text to a boolean): each tap would add its
    // own entry, forever. A sink with routes is left to its device.
    pw_properties_set(properties, "device.routes", "1");
    tap.io->capture = pw_stream_new(graph_->core, tap.nodeName.c_str(), properties);
    if (tap.io->capture == nullptr) {
      return kAudioHardwareUnspecifiedError;
    }
    pw_stream_add_listener(tap.io->capture, &tap.io->captureListener, &captureEvents(),
                           tap.io.get());
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    const spa_pod* params[] = {audioFormat(builder, tap.sampleRate)};
    const int result = pw_stream_connect(
        tap.io->capture, PW_DIRECTION_INPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                     PW_STREAM_FLAG_RT_PROCESS),
        params, 1);
    if (result < 0) {
      pw_stream_destroy(tap.io->capture);
      return kAudioHardwareUnspecifiedError;
    }
  }
  const std::string uuid = tap.uuid;
  if (!waitForSnapshot([&](const auto& s) { return s.tapSinkWithUUID(uuid) != nullptr; },
                       options_.operationTimeout)) {
    LoopLock lock(loop_);
    pw_stream_destroy(tap.io->capture);
    return kAudioHardwareNotRunningError;
  }
  const std::set<SInt32> pids = tap.pids;
  {
    LoopLock lock(loop_);
    tap.id = model_.allocateObjectID();
    outTap = tap.id;
    {
      std::lock_guard objectsLock(objectsMutex_);
      tapRates_[tap.id] = tap.sampleRate;
    }
    taps_.emplace(tap.id, std::move(tap));
    keepStreamsOnTaps();
  }
  // Audio flows through the tap once its streams are there; new ones follow as they come.
  waitForSnapshot(
      [&](const auto& s) {
        const auto* sink = s.tapSinkWithUUID(uuid);
        return sink != nullptr &&
               std::none_of(s.sinkInputs.begin(), s.sinkInputs.end(), [&](const auto& p) {
                 return !p.isOurIO && pids.count(p.pid) > 0 && p.sink != sink->index;
               });
      },
      kTapPlacementWait);
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::returnStreams(Tap& tap) {
  // Each stream's own target again: none (the default output) unless it had one.
  for (const auto& [stream, original] : tap.originalTargets) {
    if (graph_->node(stream) != nullptr) {
      setTarget(stream, original, false);
    }
  }
  tap.originalTargets.clear();
  return kAudioHardwareNoError;
}

void PipeWireBackend::stopIO(Tap& tap) {
  if (tap.io == nullptr || tap.io->playback == nullptr) {
    return;
  }
  changeIO(context_, {tap.io.get(), nullptr, nullptr});
  spa_hook_remove(&tap.io->playbackListener);
  pw_stream_destroy(tap.io->playback);
  tap.io->playback = nullptr;
  tap.io->heldBlock.reset();
}

OSStatus PipeWireBackend::destroyProcessTap(AudioObjectID tapID) {
  std::string uuid;
  {
    LoopLock lock(loop_);
    const auto found = taps_.find(tapID);
    if (found == taps_.end()) {
      return kAudioHardwareBadObjectError;
    }
    uuid = found->second.uuid;
    returnStreams(found->second);
  }
  // The streams leave the tap before it goes, so none plays a moment on a missing node.
  waitForSnapshot(
      [&](const auto& s) {
        const auto* sink = s.tapSinkWithUUID(uuid);
        return sink == nullptr ||
               std::none_of(s.sinkInputs.begin(), s.sinkInputs.end(),
                            [&](const auto& p) { return !p.isOurIO && p.sink == sink->index; });
      },
      kTapPlacementWait);
  {
    LoopLock lock(loop_);
    const auto found = taps_.find(tapID);
    if (found != taps_.end()) {
      stopIO(found->second);
      spa_hook_remove(&found->second.io->captureListener);
      pw_stream_destroy(found->second.io->capture);
      taps_.erase(found);
    }
    std::lock_guard objectsLock(objectsMutex_);
    tapRates_.erase(tapID);
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyTapList, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::createAggregateDevice(const CFDictionary& description,
                                                AudioObjectID& outDevice) {
  const auto current = snapshot();
  if (!current->connected) {
    return kAudioHardwareNotRunningError;
  }
  auto text = [&](const char* key) {
    const auto found = description.find(key);
    return found != description.end() && found->is_string() ? found->get<std::string>()
                                                            : std::string();
  };
  Aggregate aggregate;
  aggregate.uid = text(kAudioAggregateDeviceUIDKey);
  aggregate.mainSinkName = text(kAudioAggregateDeviceMainSubDeviceKey);
  if (aggregate.uid.empty() || current->deviceWithUID(aggregate.mainSinkName) == nullptr) {
    return kAudioHardwareBadDeviceError;
  }
  std::string tapUUID;
  if (const auto taps = description.find(kAudioAggregateDeviceTapListKey);
      taps != description.end() && taps->is_array() && !taps->empty() && (*taps)[0].is_object()) {
    const auto uid = (*taps)[0].find(kAudioSubTapUIDKey);
    tapUUID = uid != (*taps)[0].end() && uid->is_string() ? uid->get<std::string>() : "";
  }
  {
    LoopLock lock(loop_);
    const auto tap = std::find_if(taps_.begin(), taps_.end(),
                                  [&](const auto& entry) { return entry.second.uuid == tapUUID; });
    if (tap == taps_.end()) {
      return kAudioHardwareBadObjectError;
    }
    aggregate.tap = tap->first;
    aggregate.id = model_.allocateObjectID();
    outDevice = aggregate.id;
    std::lock_guard objectsLock(objectsMutex_);
    aggregateInfo_[aggregate.id] = {aggregate.uid, tap->second.sampleRate};
    aggregates_.emplace(aggregate.id, std::move(aggregate));
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::destroyAggregateDevice(AudioObjectID device) {
  {
    LoopLock lock(loop_);
    const auto found = aggregates_.find(device);
    if (found == aggregates_.end()) {
      return kAudioHardwareBadDeviceError;
    }
    if (found->second.running != nullptr) {
      if (auto tap = taps_.find(found->second.tap); tap != taps_.end()) {
        stopIO(tap->second);
      }
    }
    aggregates_.erase(found);
    std::lock_guard objectsLock(objectsMutex_);
    aggregateInfo_.erase(device);
  }
  listeners_.fire(kAudioObjectSystemObject,
                  {kAudioHardwarePropertyDevices, kAudioObjectPropertyScopeGlobal,
                   kAudioObjectPropertyElementMain});
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::createIOProcID(AudioObjectID device, MainQueue*, AudioDeviceIOBlock block,
                                         AudioDeviceIOProcID& outProc) {
  LoopLock lock(loop_);
  const auto found = aggregates_.find(device);
  if (found == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  outProc = reinterpret_cast<AudioDeviceIOProcID>(++lastIOProcID_);
  found->second.procs.emplace(outProc, std::make_shared<AudioDeviceIOBlock>(std::move(block)));
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::startDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  LoopLock lock(loop_);
  const auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  const auto ioProc = aggregate->second.procs.find(proc);
  const auto tap = taps_.find(aggregate->second.tap);
  if (ioProc == aggregate->second.procs.end() || tap == taps_.end()) {
    return kAudioHardwareIllegalOperationError;
  }
  if (aggregate->second.running == proc) {
    return kAudioHardwareNoError;
  }
  if (aggregate->second.running != nullptr) {
    logger_.error("An aggregate device runs one IO proc at a time on PipeWire");
    return kAudioHardwareIllegalOperationError;
  }
  TapIO& io = *tap->second.io;
  const std::string name = "quellix.io." + tap->second.uuid;
  pw_properties* properties = pw_properties_new(
      PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_NODE_NAME, name.c_str(),
      PW_KEY_NODE_GROUP, tap->second.nodeName.c_str(), PW_KEY_TARGET_OBJECT,
      aggregate->second.mainSinkName.c_str(), PW_KEY_AUDIO_CHANNELS, "2", SPA_KEY_AUDIO_POSITION,
      "FL,FR", pulse::kIOStreamProperty, "1", nullptr);
  pw_properties_setf(properties, PW_KEY_AUDIO_RATE, "%u", tap->second.sampleRate);
  // WirePlumber stores every stream's volume under its media name: one name for all our
  // playback streams keeps that one entry, which names no node of ours.
  pw_properties_set(properties, PW_KEY_MEDIA_NAME, "Quellix");
  addSessionHygiene(properties);
  io.playback = pw_stream_new(graph_->core, name.c_str(), properties);
  if (io.playback == nullptr) {
    return kAudioHardwareUnspecifiedError;
  }
  io.context = context_;
  io.heldBlock = ioProc->second;
  pw_stream_add_listener(io.playback, &io.playbackListener, &playbackEvents(), &io);
  std::uint8_t buffer[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
  const spa_pod* params[] = {audioFormat(builder, tap->second.sampleRate)};
  if (pw_stream_connect(
          io.playback, PW_DIRECTION_OUTPUT, PW_ID_ANY,
          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                       PW_STREAM_FLAG_RT_PROCESS | PW_STREAM_FLAG_TRIGGER),
          params, 1) < 0) {
    spa_hook_remove(&io.playbackListener);
    pw_stream_destroy(io.playback);
    io.playback = nullptr;
    io.heldBlock.reset();
    return kAudioHardwareUnspecifiedError;
  }
  aggregate->second.running = proc;
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::stopDevice(AudioObjectID device, AudioDeviceIOProcID proc) {
  LoopLock lock(loop_);
  const auto aggregate = aggregates_.find(device);
  if (aggregate == aggregates_.end()) {
    return kAudioHardwareBadDeviceError;
  }
  if (aggregate->second.procs.count(proc) == 0) {
    return kAudioHardwareIllegalOperationError;
  }
  if (aggregate->second.running == proc) {
    if (auto tap = taps_.find(aggregate->second.tap); tap != taps_.end()) {
      stopIO(tap->second);
    }
    aggregate->second.running = nullptr;
  }
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID proc) {
  const OSStatus stopped = stopDevice(device, proc);
  if (stopped != kAudioHardwareNoError) {
    return stopped;
  }
  LoopLock lock(loop_);
  aggregates_[device].procs.erase(proc);
  return kAudioHardwareNoError;
}

}  // namespace quellix
