#pragma once

#include "audio/pulse/PulseModel.h"

struct pa_sink_info;
struct pa_sink_input_info;
struct pa_source_output_info;
struct pa_client_info;

// Copies of libpulse's records, taken inside its callbacks while their pointers are valid.
namespace quellix::pulse {

SinkInfo copySink(const pa_sink_info& info);
StreamInfo copySinkInput(const pa_sink_input_info& info);
StreamInfo copySourceOutput(const pa_source_output_info& info);
ClientInfo copyClient(const pa_client_info& info);

}  // namespace quellix::pulse
