#pragma once

// What the parts of PipeWireBackend's implementation share; included by them alone.
// PipeWire's method macros are GNU statement expressions and its pod builder a C99 compound
// literal, which Clang flags under -Wpedantic.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wgnu-statement-expression"
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/pipewire/PipeWireBackend.h"

namespace quellix {

class LoopLock {
 public:
  explicit LoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
  ~LoopLock() { pw_thread_loop_unlock(loop_); }
  LoopLock(const LoopLock&) = delete;
  LoopLock& operator=(const LoopLock&) = delete;

 private:
  pw_thread_loop* loop_;
};

// The registry's objects as the loop thread sees them.
struct PipeWireBackend::Graph {
  struct Node {
    Graph* graph = nullptr;
    std::uint32_t id = 0;
    std::string mediaClass;
    pulse::Properties properties;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    bool running = false;
    std::vector<float> channelVolumes;  // linear, as the graph applies them
    bool mute = false;
  };
  // A device's active routes by the device index its nodes name (card.profile.device):
  // where the desktop's volume control acts for a hardware sink.
  struct Route {
    int index = 0;
    int device = 0;
    std::vector<float> channelVolumes;
    bool mute = false;
  };
  struct Device {
    Graph* graph = nullptr;
    std::uint32_t id = 0;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    std::map<int, Route> routes;
  };
  struct Link {
    std::uint32_t outputNode = 0;
    std::uint32_t inputNode = 0;
  };

  PipeWireBackend* backend = nullptr;
  pw_core* core = nullptr;
  spa_hook coreListener{};
  pw_registry* registry = nullptr;
  spa_hook registryListener{};
  pw_metadata* metadata = nullptr;
  spa_hook metadataListener{};
  std::uint32_t metadataID = SPA_ID_INVALID;
  bool connected = false;
  bool ready = false;
  int syncSeq = -1;
  int syncsLeft = 2;  // the registry's objects, then what binding them returned
  int waitedSeq = -1;
  bool waitedDone = false;
  std::uint32_t defaultClockRate = 48000;

  std::map<std::uint32_t, std::unique_ptr<Node>> nodes;
  std::map<std::uint32_t, std::unique_ptr<Device>> devices;
  std::map<std::uint32_t, pulse::Properties> clients;
  std::map<std::uint32_t, Link> links;
  std::string defaultSinkName;
  // The streams' targets in the `default` metadata, by the stream's node id.
  std::map<std::uint32_t, std::string> targets;

  // Something the model is made of changed: a new snapshot follows.
  void changed() { backend->schedulePublish(); }

  Node* node(std::uint32_t id) const {
    const auto found = nodes.find(id);
    return found == nodes.end() ? nullptr : found->second.get();
  }
  ~Graph();
};

namespace pipewire {
inline constexpr std::uint32_t kChannels = 2;
inline constexpr std::uint32_t kBytesPerFrame = kChannels * sizeof(float);
// The largest graph quantum a cycle may bring; the silence for a missing input is this long.
inline constexpr std::uint32_t kMaxFrames = 8192;

// A node id out of a property's text.
std::optional<std::uint32_t> idOf(const std::string& text);
}  // namespace pipewire

// A tap's two nodes and what the realtime thread needs of them. The capture side is the
// virtual sink the tapped streams play to; once the aggregate device's IO runs, each of its
// cycles triggers the playback side, whose process callback runs the IO block from the
// captured buffer straight into the output's buffer. The playback pointer and the block are
// changed only on the data thread (by an invoke), so the callbacks need no lock.
struct PipeWireBackend::TapIO {
  static constexpr std::uint32_t kChannels = pipewire::kChannels;
  static constexpr std::uint32_t kBytesPerFrame = pipewire::kBytesPerFrame;
  static constexpr std::uint32_t kMaxFrames = pipewire::kMaxFrames;

  pw_stream* capture = nullptr;
  spa_hook captureListener{};
  pw_stream* playback = nullptr;
  spa_hook playbackListener{};
  // Data thread only.
  pw_stream* livePlayback = nullptr;
  const AudioDeviceIOBlock* block = nullptr;
  std::shared_ptr<AudioDeviceIOBlock> heldBlock;  // keeps `block` alive; loop thread
  pw_context* context = nullptr;
  std::vector<float> silence = std::vector<float>(kMaxFrames * kChannels, 0.0f);

  static void onCaptureProcess(void* data) {
    auto* io = static_cast<TapIO*>(data);
    if (io->livePlayback != nullptr) {
      pw_stream_trigger_process(io->livePlayback);
      return;
    }
    // No IO yet: what the tapped streams play goes nowhere.
    if (pw_buffer* in = pw_stream_dequeue_buffer(io->capture)) {
      pw_stream_queue_buffer(io->capture, in);
    }
  }

  static void onPlaybackProcess(void* data) {
    auto* io = static_cast<TapIO*>(data);
    pw_buffer* in = pw_stream_dequeue_buffer(io->capture);
    pw_buffer* out =
        io->livePlayback != nullptr ? pw_stream_dequeue_buffer(io->livePlayback) : nullptr;
    if (out != nullptr) {
      io->render(in, out);
      pw_stream_queue_buffer(io->livePlayback, out);
    }
    if (in != nullptr) {
      pw_stream_queue_buffer(io->capture, in);
    }
  }

  void render(pw_buffer* in, pw_buffer* out) {
    spa_data& target = out->buffer->datas[0];
    if (target.data == nullptr) {
      return;
    }
    // What the tapped streams played this cycle sets the length: the output takes as much.
    std::uint32_t frames = std::min(target.maxsize / kBytesPerFrame, kMaxFrames);
    const float* input = silence.data();
    if (in != nullptr && in->buffer->datas[0].data != nullptr) {
      const spa_data& source = in->buffer->datas[0];
      const std::uint32_t offset = std::min(source.chunk->offset, source.maxsize);
      frames =
          std::min(frames, std::min(source.chunk->size, source.maxsize - offset) / kBytesPerFrame);
      input =
          reinterpret_cast<const float*>(static_cast<const std::uint8_t*>(source.data) + offset);
    } else if (out->requested > 0) {
      frames = std::min<std::uint32_t>(frames, static_cast<std::uint32_t>(out->requested));
    }
    auto* output = static_cast<float*>(target.data);
    const UInt32 bytes = frames * kBytesPerFrame;
    // The block may write nothing (muted): the output then plays this silence.
    std::memset(output, 0, bytes);
    if (block != nullptr) {
      AudioBuffer inBuffer{kChannels, bytes, const_cast<float*>(input)};
      AudioBuffer outBuffer{kChannels, bytes, output};
      const AudioBufferList inList{1, &inBuffer};
      AudioBufferList outList{1, &outBuffer};
      (*block)(nullptr, &inList, nullptr, &outList, nullptr);
    }
    target.chunk->offset = 0;
    target.chunk->stride = kBytesPerFrame;
    target.chunk->size = bytes;
  }
};

// The linear channel volume PipeWire applies for a volume slider position (cubic, as
// PulseAudio and the desktop's controls show it), and back.
inline float linearFromSlider(double slider) {
  return static_cast<float>(slider * slider * slider);
}
inline double sliderFromLinear(float linear) {
  return std::cbrt(std::max(0.0f, linear));
}

}  // namespace quellix
