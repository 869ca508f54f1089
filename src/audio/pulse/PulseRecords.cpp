#include "audio/pulse/PulseRecords.h"

#include <pulse/pulseaudio.h>

namespace quellix::pulse {
namespace {

Properties copyProperties(const pa_proplist* list) {
  Properties properties;
  if (list == nullptr) {
    return properties;
  }
  void* state = nullptr;
  while (const char* key = pa_proplist_iterate(list, &state)) {
    if (const char* value = pa_proplist_gets(list, key)) {
      properties.emplace(key, value);
    }
  }
  return properties;
}

template <typename Info>
StreamInfo copyStream(const Info& info, std::uint32_t device) {
  StreamInfo stream;
  stream.index = info.index;
  stream.client = info.client;
  stream.device = device;
  stream.corked = info.corked != 0;
  stream.ownerModule = info.owner_module;
  stream.properties = copyProperties(info.proplist);
  return stream;
}

}  // namespace

SinkInfo copySink(const pa_sink_info& info) {
  SinkInfo sink;
  sink.index = info.index;
  sink.name = info.name != nullptr ? info.name : "";
  sink.sampleRate = info.sample_spec.rate;
  sink.channelVolumes.assign(info.volume.values, info.volume.values + info.volume.channels);
  sink.mute = info.mute != 0;
  sink.ownerModule = info.owner_module;
  sink.properties = copyProperties(info.proplist);
  return sink;
}

StreamInfo copySinkInput(const pa_sink_input_info& info) {
  return copyStream(info, info.sink);
}

StreamInfo copySourceOutput(const pa_source_output_info& info) {
  return copyStream(info, info.source);
}

ClientInfo copyClient(const pa_client_info& info) {
  return {info.index, copyProperties(info.proplist)};
}

}  // namespace quellix::pulse
