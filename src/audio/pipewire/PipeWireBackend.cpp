// The connection, the registry's objects as the model's records, property answers and the
// devices' volume and mute.
#include "audio/pipewire/PipeWireBackend.h"

#include <spa/param/route.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "audio/PropertyValue.h"
#include "audio/SnapshotProperties.h"
#include "audio/pipewire/PipeWireParts.h"
#include "support/Parsing.h"

namespace quellix {

using Graph = PipeWireBackend::Graph;

std::optional<std::uint32_t> pipewire::idOf(const std::string& text) {
  std::uint32_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && next == end && !text.empty() ? std::optional(value) : std::nullopt;
}

namespace {

constexpr const char* kSinkClass = "Audio/Sink";
constexpr const char* kOutputStreamClass = "Stream/Output/Audio";
constexpr const char* kInputStreamClass = "Stream/Input/Audio";

pulse::Properties propertiesOf(const spa_dict* dict) {
  pulse::Properties properties;
  if (dict != nullptr) {
    const spa_dict_item* item;
    spa_dict_for_each(item, dict) {
      if (item->key != nullptr && item->value != nullptr) {
        properties[item->key] = item->value;
      }
    }
  }
  return properties;
}

std::string propertyOr(const pulse::Properties& properties, const char* key,
                       std::string fallback = {}) {
  const auto found = properties.find(key);
  return found == properties.end() ? fallback : found->second;
}

// The value of "name" in the metadata's JSON object {"name": "..."}.
std::string nameInJSON(const char* json) {
  if (json == nullptr) {
    return {};
  }
  const std::string text(json);
  auto key = text.find("\"name\"");
  if (key == std::string::npos) {
    return {};
  }
  const auto open = text.find('"', text.find(':', key) + 1);
  const auto close = open == std::string::npos ? open : text.find('"', open + 1);
  return close == std::string::npos ? std::string() : text.substr(open + 1, close - open - 1);
}

std::vector<float> floatsOf(const spa_pod* pod) {
  float values[SPA_AUDIO_MAX_CHANNELS];
  const std::uint32_t count =
      spa_pod_copy_array(pod, SPA_TYPE_Float, values, SPA_AUDIO_MAX_CHANNELS);
  return {values, values + count};
}

// Channel volumes and mute out of a Props object.
void readProps(const spa_pod* props, std::vector<float>& volumes, bool& mute) {
  if (props == nullptr || !spa_pod_is_object(props)) {
    return;
  }
  const auto* object = reinterpret_cast<const spa_pod_object*>(props);
  const spa_pod_prop* prop;
  SPA_POD_OBJECT_FOREACH(object, prop) {
    if (prop->key == SPA_PROP_channelVolumes) {
      volumes = floatsOf(&prop->value);
    } else if (prop->key == SPA_PROP_mute) {
      bool value = false;
      if (spa_pod_get_bool(&prop->value, &value) == 0) {
        mute = value;
      }
    }
  }
}

void onNodeInfo(void* data, const pw_node_info* info) {
  auto* node = static_cast<Graph::Node*>(data);
  node->running = info->state == PW_NODE_STATE_RUNNING;
  if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0 && info->props != nullptr) {
    node->properties = propertiesOf(info->props);
  }
  node->graph->changed();
}

}  // namespace

Graph::~Graph() {
  for (auto& [id, node] : nodes) {
    if (node->proxy != nullptr) {
      spa_hook_remove(&node->listener);
      pw_proxy_destroy(node->proxy);
    }
  }
  for (auto& [id, device] : devices) {
    spa_hook_remove(&device->listener);
    pw_proxy_destroy(device->proxy);
  }
  if (metadata != nullptr) {
    spa_hook_remove(&metadataListener);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(metadata));
  }
  if (registry != nullptr) {
    spa_hook_remove(&registryListener);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
  }
  if (core != nullptr) {
    spa_hook_remove(&coreListener);
    pw_core_disconnect(core);
  }
}

namespace {

void onNodeParam(void* data, int, std::uint32_t id, std::uint32_t, std::uint32_t,
                 const spa_pod* param) {
  auto* node = static_cast<Graph::Node*>(data);
  if (id == SPA_PARAM_Props) {
    readProps(param, node->channelVolumes, node->mute);
    node->graph->changed();
  }
}

void onDeviceParam(void* data, int, std::uint32_t id, std::uint32_t, std::uint32_t,
                   const spa_pod* param) {
  auto* device = static_cast<Graph::Device*>(data);
  if (id != SPA_PARAM_Route || param == nullptr || !spa_pod_is_object(param)) {
    return;
  }
  Graph::Route route;
  std::uint32_t direction = SPA_DIRECTION_INPUT;
  const spa_pod* props = nullptr;
  const auto* object = reinterpret_cast<const spa_pod_object*>(param);
  const spa_pod_prop* prop;
  SPA_POD_OBJECT_FOREACH(object, prop) {
    switch (prop->key) {
      case SPA_PARAM_ROUTE_index:
        spa_pod_get_int(&prop->value, &route.index);
        break;
      case SPA_PARAM_ROUTE_device:
        spa_pod_get_int(&prop->value, &route.device);
        break;
      case SPA_PARAM_ROUTE_direction:
        spa_pod_get_id(&prop->value, &direction);
        break;
      case SPA_PARAM_ROUTE_props:
        props = &prop->value;
        break;
      default:
        break;
    }
  }
  if (direction == SPA_DIRECTION_OUTPUT) {
    readProps(props, route.channelVolumes, route.mute);
    device->routes[route.device] = std::move(route);
    device->graph->changed();
  }
}

const pw_node_events& nodeEvents() {
  static const pw_node_events events = [] {
    pw_node_events e{};
    e.version = PW_VERSION_NODE_EVENTS;
    e.info = onNodeInfo;
    e.param = onNodeParam;
    return e;
  }();
  return events;
}

const pw_device_events& deviceEvents() {
  static const pw_device_events events = [] {
    pw_device_events e{};
    e.version = PW_VERSION_DEVICE_EVENTS;
    e.param = onDeviceParam;
    return e;
  }();
  return events;
}

int onMetadataProperty(void* data, std::uint32_t subject, const char* key, const char*,
                       const char* value) {
  auto* graph = static_cast<Graph*>(data);
  if (key == nullptr) {
    if (subject == PW_ID_CORE) {
      graph->defaultSinkName.clear();
    }
    graph->targets.erase(subject);
  } else if (subject == PW_ID_CORE && std::strcmp(key, "default.audio.sink") == 0) {
    graph->defaultSinkName = nameInJSON(value);
  } else if (std::strcmp(key, "target.object") == 0) {
    if (value == nullptr) {
      graph->targets.erase(subject);
    } else {
      graph->targets[subject] = value;
    }
  } else {
    return 0;
  }
  graph->changed();
  return 0;
}

const pw_metadata_events& metadataEvents() {
  static const pw_metadata_events events = [] {
    pw_metadata_events e{};
    e.version = PW_VERSION_METADATA_EVENTS;
    e.property = onMetadataProperty;
    return e;
  }();
  return events;
}

}  // namespace

// Registry and core events, as members of the backend through the graph.
struct GraphEvents {
  static void global(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                     const spa_dict* dict) {
    auto* graph = static_cast<Graph*>(data);
    const auto properties = propertiesOf(dict);
    if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
      const std::string mediaClass = propertyOr(properties, PW_KEY_MEDIA_CLASS);
      if (mediaClass != kSinkClass && mediaClass != kOutputStreamClass &&
          mediaClass != kInputStreamClass) {
        return;
      }
      auto node = std::make_unique<Graph::Node>();
      node->graph = graph;
      node->id = id;
      node->mediaClass = mediaClass;
      node->properties = properties;
      node->proxy = static_cast<pw_proxy*>(
          pw_registry_bind(graph->registry, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
      if (node->proxy != nullptr) {
        pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents(), node.get());
        if (mediaClass == kSinkClass) {
          std::uint32_t ids[] = {SPA_PARAM_Props};
          pw_node_subscribe_params(reinterpret_cast<pw_node*>(node->proxy), ids, 1);
        }
      }
      graph->backend->model_.announce(kindOf(mediaClass), id);
      graph->nodes[id] = std::move(node);
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Device) == 0) {
      if (propertyOr(properties, PW_KEY_MEDIA_CLASS) != "Audio/Device") {
        return;
      }
      auto device = std::make_unique<Graph::Device>();
      device->graph = graph;
      device->id = id;
      device->proxy = static_cast<pw_proxy*>(
          pw_registry_bind(graph->registry, id, PW_TYPE_INTERFACE_Device, PW_VERSION_DEVICE, 0));
      if (device->proxy == nullptr) {
        return;
      }
      pw_proxy_add_object_listener(device->proxy, &device->listener, &deviceEvents(), device.get());
      std::uint32_t ids[] = {SPA_PARAM_Route};
      pw_device_subscribe_params(reinterpret_cast<pw_device*>(device->proxy), ids, 1);
      graph->devices[id] = std::move(device);
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
      graph->backend->model_.announce(pulse::PulseModel::Kind::client, id);
      graph->clients[id] = properties;
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Link) == 0) {
      Graph::Link link;
      link.outputNode = pipewire::idOf(propertyOr(properties, PW_KEY_LINK_OUTPUT_NODE)).value_or(0);
      link.inputNode = pipewire::idOf(propertyOr(properties, PW_KEY_LINK_INPUT_NODE)).value_or(0);
      graph->links[id] = link;
    } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 &&
               propertyOr(properties, PW_KEY_METADATA_NAME) == "default" &&
               graph->metadata == nullptr) {
      graph->metadata = static_cast<pw_metadata*>(pw_registry_bind(
          graph->registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
      graph->metadataID = id;
      if (graph->metadata != nullptr) {
        pw_metadata_add_listener(graph->metadata, &graph->metadataListener, &metadataEvents(),
                                 graph);
      }
    } else {
      return;
    }
    graph->changed();
  }

  static pulse::PulseModel::Kind kindOf(const std::string& mediaClass) {
    if (mediaClass == kSinkClass) {
      return pulse::PulseModel::Kind::sink;
    }
    return mediaClass == kOutputStreamClass ? pulse::PulseModel::Kind::sinkInput
                                            : pulse::PulseModel::Kind::sourceOutput;
  }

  static void globalRemove(void* data, std::uint32_t id) {
    auto* graph = static_cast<Graph*>(data);
    auto& model = graph->backend->model_;
    if (auto node = graph->nodes.find(id); node != graph->nodes.end()) {
      model.remove(kindOf(node->second->mediaClass), id);
      if (node->second->proxy != nullptr) {
        spa_hook_remove(&node->second->listener);
        pw_proxy_destroy(node->second->proxy);
      }
      graph->nodes.erase(node);
      graph->targets.erase(id);
    } else if (auto device = graph->devices.find(id); device != graph->devices.end()) {
      spa_hook_remove(&device->second->listener);
      pw_proxy_destroy(device->second->proxy);
      graph->devices.erase(device);
    } else if (graph->clients.erase(id) > 0) {
      model.remove(pulse::PulseModel::Kind::client, id);
    } else if (graph->links.erase(id) == 0) {
      if (id == graph->metadataID && graph->metadata != nullptr) {
        spa_hook_remove(&graph->metadataListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(graph->metadata));
        graph->metadata = nullptr;
        graph->metadataID = SPA_ID_INVALID;
      }
      return;
    }
    graph->changed();
  }

  static void coreInfo(void* data, const pw_core_info* info) {
    auto* graph = static_cast<Graph*>(data);
    if (info->props != nullptr) {
      if (const char* rate = spa_dict_lookup(info->props, "default.clock.rate")) {
        graph->defaultClockRate = pipewire::idOf(rate).value_or(48000);
      }
    }
  }

  static void coreDone(void* data, std::uint32_t id, int seq) {
    auto* graph = static_cast<Graph*>(data);
    if (id != PW_ID_CORE) {
      return;
    }
    if (seq == graph->waitedSeq) {
      graph->waitedDone = true;
    }
    if (seq == graph->syncSeq && !graph->ready) {
      if (--graph->syncsLeft > 0) {
        graph->syncSeq = pw_core_sync(graph->core, PW_ID_CORE, graph->syncSeq);
      } else {
        graph->ready = true;
        graph->changed();
      }
    }
    pw_thread_loop_signal(graph->backend->loop_, false);
  }

  static void coreError(void* data, std::uint32_t id, int, int res, const char* message) {
    auto* graph = static_cast<Graph*>(data);
    if (id == PW_ID_CORE && res == -EPIPE) {
      graph->connected = false;
      graph->backend->logger_.error(std::string("Lost the PipeWire server: ") +
                                    (message != nullptr ? message : ""));
      graph->changed();
      pw_thread_loop_signal(graph->backend->loop_, false);
    }
  }
};

namespace {

const pw_registry_events& registryEvents() {
  static const pw_registry_events events = [] {
    pw_registry_events e{};
    e.version = PW_VERSION_REGISTRY_EVENTS;
    e.global = GraphEvents::global;
    e.global_remove = GraphEvents::globalRemove;
    return e;
  }();
  return events;
}

const pw_core_events& coreEvents() {
  static const pw_core_events events = [] {
    pw_core_events e{};
    e.version = PW_VERSION_CORE_EVENTS;
    e.info = GraphEvents::coreInfo;
    e.done = GraphEvents::coreDone;
    e.error = GraphEvents::coreError;
    return e;
  }();
  return events;
}

}  // namespace

PipeWireBackend::PipeWireBackend(Options options, std::shared_ptr<LogSink> logs)
    : options_(options),
      snapshot_(std::make_shared<const pulse::AudioSnapshot>()),
      logger_(std::move(logs), "AudioBackend") {}

std::shared_ptr<PipeWireBackend> PipeWireBackend::create(Options options,
                                                         std::shared_ptr<LogSink> logs) {
  pw_init(nullptr, nullptr);
  std::shared_ptr<PipeWireBackend> backend(new PipeWireBackend(options, std::move(logs)));
  if (!backend->connect()) {
    backend->logger_.error("No PipeWire server answers; the audio system is not running");
  }
  return backend;
}

bool PipeWireBackend::connect() {
  loop_ = pw_thread_loop_new("quellix-pipewire", nullptr);
  if (loop_ == nullptr) {
    return false;
  }
  context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
  if (context_ == nullptr || pw_thread_loop_start(loop_) < 0) {
    return false;
  }
  LoopLock lock(loop_);
  publishEvent_ = pw_loop_add_event(pw_thread_loop_get_loop(loop_), onPublishEvent, this);
  graph_ = std::make_unique<Graph>();
  graph_->backend = this;
  pw_properties* properties = pw_properties_new(PW_KEY_APP_NAME, "Quellix", nullptr);
  graph_->core = pw_context_connect(context_, properties, 0);
  if (graph_->core == nullptr) {
    return false;
  }
  graph_->connected = true;
  pw_core_add_listener(graph_->core, &graph_->coreListener, &coreEvents(), graph_.get());
  graph_->registry = pw_core_get_registry(graph_->core, PW_VERSION_REGISTRY, 0);
  pw_registry_add_listener(graph_->registry, &graph_->registryListener, &registryEvents(),
                           graph_.get());
  graph_->syncSeq = pw_core_sync(graph_->core, PW_ID_CORE, 0);
  timespec deadline{};
  pw_thread_loop_get_time(loop_, &deadline, std::chrono::nanoseconds(options_.startupWait).count());
  while (!graph_->ready && graph_->connected) {
    if (pw_thread_loop_timed_wait_full(loop_, &deadline) != 0) {
      break;
    }
  }
  if (graph_->ready) {
    publish();
  }
  return graph_->ready;
}

PipeWireBackend::~PipeWireBackend() {
  for (auto& entry : aggregates_) {
    entry.second.running = nullptr;
  }
  if (loop_ != nullptr) {
    {
      LoopLock lock(loop_);
      for (auto& [id, tap] : taps_) {
        stopIO(tap);
        returnStreams(tap);
        spa_hook_remove(&tap.io->captureListener);
        pw_stream_destroy(tap.io->capture);
      }
      taps_.clear();
    }
    pw_thread_loop_stop(loop_);
  }
  taps_.clear();
  graph_.reset();
  if (publishEvent_ != nullptr) {
    pw_loop_destroy_source(pw_thread_loop_get_loop(loop_), publishEvent_);
  }
  if (context_ != nullptr) {
    pw_context_destroy(context_);
  }
  if (loop_ != nullptr) {
    pw_thread_loop_destroy(loop_);
  }
}

void PipeWireBackend::schedulePublish() {
  if (publishEvent_ != nullptr) {
    pw_loop_signal_event(pw_thread_loop_get_loop(loop_), publishEvent_);
  }
}

void PipeWireBackend::onPublishEvent(void* data, std::uint64_t) {
  static_cast<PipeWireBackend*>(data)->publish();
}

void PipeWireBackend::publish() {
  Graph& graph = *graph_;
  if (!graph.ready && graph.connected) {
    return;  // the first view is published whole
  }
  // The graph as the model's records: sinks, the streams with the sink each is linked to,
  // and the clients.
  std::map<std::uint32_t, std::uint32_t> playsTo;
  for (const auto& [id, link] : graph.links) {
    if (const auto* sink = graph.node(link.inputNode);
        sink != nullptr && sink->mediaClass == kSinkClass) {
      playsTo[link.outputNode] = link.inputNode;
    }
  }
  std::optional<std::string> proxy;
  for (const auto& [id, node] : graph.nodes) {
    if (node->mediaClass == kSinkClass) {
      pulse::SinkInfo sink;
      sink.index = id;
      sink.name = propertyOr(node->properties, PW_KEY_NODE_NAME);
      sink.sampleRate = pipewire::idOf(propertyOr(node->properties, PW_KEY_AUDIO_RATE))
                            .value_or(graph.defaultClockRate);
      std::vector<float> volumes = node->channelVolumes;
      sink.mute = node->mute;
      const auto device = graph.devices.find(
          pipewire::idOf(propertyOr(node->properties, PW_KEY_DEVICE_ID)).value_or(0));
      const auto routeDevice =
          parseStrictInt32(propertyOr(node->properties, "card.profile.device"));
      if (device != graph.devices.end() && routeDevice) {
        if (const auto route = device->second->routes.find(*routeDevice);
            route != device->second->routes.end()) {
          volumes = route->second.channelVolumes;
          sink.mute = route->second.mute;
        }
      }
      for (const float volume : volumes) {
        sink.channelVolumes.push_back(
            static_cast<std::uint32_t>(std::lround(sliderFromLinear(volume) * pulse::kVolumeNorm)));
      }
      sink.properties = node->properties;
      model_.applySink(std::move(sink));
      continue;
    }
    pulse::StreamInfo stream;
    stream.index = id;
    // pipewire-pulse connects for its clients and copies each one's properties onto its
    // streams: what the server verified of that connection is pipewire-pulse's own PID.
    stream.client = propertyOr(node->properties, PW_KEY_CLIENT_API) == "pipewire-pulse"
                        ? pulse::kInvalidIndex
                        : pipewire::idOf(propertyOr(node->properties, PW_KEY_CLIENT_ID))
                              .value_or(pulse::kInvalidIndex);
    stream.corked = !node->running;
    stream.properties = node->properties;
    if (node->mediaClass == kOutputStreamClass) {
      const auto sink = playsTo.find(id);
      stream.device = sink != playsTo.end() ? sink->second : pulse::kInvalidIndex;
      model_.applySinkInput(std::move(stream));
    } else {
      model_.applySourceOutput(std::move(stream));
    }
  }
  for (const auto& [id, properties] : graph.clients) {
    pulse::ClientInfo client{id, properties};
    model_.applyClient(std::move(client));
  }
  model_.setDefaultSinkName(graph.defaultSinkName);

  auto next =
      std::make_shared<const pulse::AudioSnapshot>(model_.snapshot(graph.ready && graph.connected));
  std::shared_ptr<const pulse::AudioSnapshot> previous;
  {
    std::lock_guard lock(snapshotMutex_);
    previous = std::exchange(snapshot_, next);
  }
  snapshotChanged_.notify_all();
  for (const auto& change : pulse::changesBetween(*previous, *next)) {
    listeners_.fire(change.object, change.address);
  }
  if (next->connected) {
    keepStreamsOnTaps();
  }
}

bool PipeWireBackend::isConnected() const {
  return snapshot()->connected;
}

std::shared_ptr<const pulse::AudioSnapshot> PipeWireBackend::snapshot() const {
  std::lock_guard lock(snapshotMutex_);
  return snapshot_;
}

bool PipeWireBackend::waitForSnapshot(
    const std::function<bool(const pulse::AudioSnapshot&)>& condition,
    std::chrono::milliseconds timeout) {
  std::unique_lock lock(snapshotMutex_);
  return snapshotChanged_.wait_for(lock, timeout, [&] { return condition(*snapshot_); });
}

bool PipeWireBackend::roundTrip() {
  LoopLock lock(loop_);
  if (!graph_ || !graph_->connected) {
    return false;
  }
  graph_->waitedDone = false;
  graph_->waitedSeq = pw_core_sync(graph_->core, PW_ID_CORE, 0);
  timespec deadline{};
  pw_thread_loop_get_time(loop_, &deadline,
                          std::chrono::nanoseconds(options_.operationTimeout).count());
  while (!graph_->waitedDone && graph_->connected) {
    if (pw_thread_loop_timed_wait_full(loop_, &deadline) != 0) {
      return false;
    }
  }
  return graph_->waitedDone;
}

std::optional<PropertyValue> PipeWireBackend::propertyValue(
    AudioObjectID object, const AudioObjectPropertyAddress& address, OSStatus& status) const {
  const auto current = snapshot();
  bool found = false;
  auto answer = snapshotPropertyValue(
      *current, object, address,
      [&](AudioObjectPropertySelector selector) {
        std::vector<AudioObjectID> ids;
        std::lock_guard lock(objectsMutex_);
        if (selector == kAudioHardwarePropertyTapList) {
          for (const auto& entry : tapRates_) {
            ids.push_back(entry.first);
          }
        } else {
          for (const auto& entry : aggregateInfo_) {
            ids.push_back(entry.first);
          }
        }
        return ids;
      },
      status, found);
  if (found) {
    return answer;
  }
  std::lock_guard lock(objectsMutex_);
  if (const auto tap = tapRates_.find(object); tap != tapRates_.end()) {
    status = kAudioHardwareUnknownPropertyError;
    return tapPropertyValue(tap->second, address);
  }
  if (const auto aggregate = aggregateInfo_.find(object); aggregate != aggregateInfo_.end()) {
    status = kAudioHardwareUnknownPropertyError;
    return aggregatePropertyValue(aggregate->second.first, aggregate->second.second, address);
  }
  return std::nullopt;
}

namespace {

// Props with the given channel volumes or mute, into `builder`.
spa_pod* buildProps(spa_pod_builder& builder, const std::vector<float>* volumes, const bool* mute) {
  spa_pod_frame frame{};
  spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
  if (volumes != nullptr) {
    spa_pod_builder_prop(&builder, SPA_PROP_channelVolumes, 0);
    spa_pod_builder_array(&builder, sizeof(float), SPA_TYPE_Float,
                          static_cast<std::uint32_t>(volumes->size()), volumes->data());
  }
  if (mute != nullptr) {
    spa_pod_builder_prop(&builder, SPA_PROP_mute, 0);
    spa_pod_builder_bool(&builder, *mute);
  }
  return static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

}  // namespace

OSStatus PipeWireBackend::setPropertyData(AudioObjectID object,
                                          const AudioObjectPropertyAddress& address, UInt32,
                                          const void*, UInt32 size, const void* data) {
  const auto current = snapshot();
  const auto* device = current->device(object);
  if (device == nullptr) {
    if (!current->connected) {
      return kAudioHardwareNotRunningError;
    }
    return current->process(object) != nullptr || object == kAudioObjectSystemObject
               ? kAudioHardwareUnknownPropertyError
               : kAudioHardwareBadObjectError;
  }
  const bool isVolume =
      address.mSelector == kAudioHardwareServiceDeviceProperty_VirtualMainVolume &&
      address.mScope == kAudioDevicePropertyScopeOutput;
  const bool isMute = address.mSelector == kAudioDevicePropertyMute &&
                      address.mScope == kAudioDevicePropertyScopeOutput;
  if (!isVolume && !isMute) {
    return kAudioHardwareUnknownPropertyError;
  }
  if (size != (isVolume ? sizeof(Float32) : sizeof(UInt32))) {
    return kAudioHardwareBadPropertySizeError;
  }
  Float32 volume = 0;
  UInt32 muteValue = 0;
  std::memcpy(isVolume ? static_cast<void*>(&volume) : &muteValue, data, size);
  const bool mute = muteValue != 0;
  {
    LoopLock lock(loop_);
    Graph::Node* node = graph_ ? graph_->node(device->sinkIndex) : nullptr;
    if (node == nullptr || node->proxy == nullptr) {
      return kAudioHardwareBadObjectError;
    }
    // The channel volumes keep the sink's balance and average to the slider's position.
    std::vector<float> volumes;
    if (isVolume) {
      double average = 0;
      for (const auto channel : device->channelVolumes) {
        average += channel;
      }
      average /= std::max<std::size_t>(device->channelVolumes.size(), 1);
      const double target = std::clamp<double>(volume, 0.0, 1.0) * pulse::kVolumeNorm;
      for (const auto channel : device->channelVolumes) {
        volumes.push_back(linearFromSlider((average > 0 ? channel * target / average : target) /
                                           pulse::kVolumeNorm));
      }
      if (volumes.empty()) {
        volumes.assign(2, linearFromSlider(target / pulse::kVolumeNorm));
      }
    }
    std::uint8_t buffer[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof buffer);
    const auto* volumesIn = isVolume ? &volumes : nullptr;
    const auto* muteIn = isMute ? &mute : nullptr;
    // A hardware sink's volume is its device's active route's, where the desktop sets it.
    const auto deviceEntry = graph_->devices.find(
        pipewire::idOf(propertyOr(node->properties, PW_KEY_DEVICE_ID)).value_or(0));
    const auto routeDevice = parseStrictInt32(propertyOr(node->properties, "card.profile.device"));
    const Graph::Route* route = nullptr;
    if (deviceEntry != graph_->devices.end() && routeDevice) {
      const auto found = deviceEntry->second->routes.find(*routeDevice);
      route = found != deviceEntry->second->routes.end() ? &found->second : nullptr;
    }
    if (route != nullptr) {
      spa_pod_frame frame{};
      spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamRoute, SPA_PARAM_Route);
      spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_index, 0);
      spa_pod_builder_int(&builder, route->index);
      spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_device, 0);
      spa_pod_builder_int(&builder, route->device);
      spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_props, 0);
      buildProps(builder, volumesIn, muteIn);
      spa_pod_builder_prop(&builder, SPA_PARAM_ROUTE_save, 0);
      spa_pod_builder_bool(&builder, true);
      const auto* param = static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
      pw_device_set_param(reinterpret_cast<pw_device*>(deviceEntry->second->proxy), SPA_PARAM_Route,
                          0, param);
    } else {
      const spa_pod* param = buildProps(builder, volumesIn, muteIn);
      pw_node_set_param(reinterpret_cast<pw_node*>(node->proxy), SPA_PARAM_Props, 0, param);
    }
  }
  if (!roundTrip()) {
    return kAudioHardwareNotRunningError;
  }
  // The server's own report of the sink decides, as it reaches the model.
  const AudioObjectID id = object;
  const bool settled = waitForSnapshot(
      [&](const pulse::AudioSnapshot& s) {
        const auto* now = s.device(id);
        return now == nullptr ||
               (isVolume ? std::abs(now->volume - std::clamp(volume, 0.0f, 1.0f)) < 0.01f
                         : now->mute == mute);
      },
      options_.operationTimeout);
  return settled ? kAudioHardwareNoError : kAudioHardwareUnspecifiedError;
}

OSStatus PipeWireBackend::addPropertyListener(AudioObjectID object,
                                              const AudioObjectPropertyAddress& address,
                                              MainQueue* queue,
                                              AudioObjectPropertyListenerBlock listener) {
  if (object != kAudioObjectSystemObject) {
    const auto current = snapshot();
    if (current->process(object) == nullptr && current->device(object) == nullptr) {
      return current->connected ? kAudioHardwareBadObjectError : kAudioHardwareNotRunningError;
    }
  }
  listeners_.add(object, address, queue, std::move(listener));
  return kAudioHardwareNoError;
}

OSStatus PipeWireBackend::removePropertyListener(AudioObjectID object,
                                                 const AudioObjectPropertyAddress& address,
                                                 MainQueue* queue,
                                                 const AudioObjectPropertyListenerBlock& listener) {
  return listeners_.remove(object, address, queue, listener) ? kAudioHardwareNoError
                                                             : kAudioHardwareIllegalOperationError;
}

}  // namespace quellix
