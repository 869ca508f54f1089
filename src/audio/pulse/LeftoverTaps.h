#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "audio/pulse/PulseModel.h"

struct pa_context;
struct pa_operation;

namespace quellix {
class Logger;
}

// Our tap sinks outlive the process that made them. These rules tell which of them nobody
// owns any more and remove them, for the backend as it connects and for the guard once the
// process it watches has ended.
namespace quellix::pulse {

// A process as a tap sink names its owner: a PID and the kernel's start time, so a reused PID
// is not taken for the process it replaced.
struct TapOwner {
  SInt32 pid = 0;
  std::string start;
};

// The start time of a live process; empty when there is none (a zombie has ended too).
std::string processStartTime(pid_t pid);
TapOwner currentProcess();

// Whether a tap sink's owner is gone; `ended` counts as gone whatever /proc still shows of it.
bool isLeftover(const TapSink& tap, const std::optional<TapOwner>& ended = std::nullopt);

// Issues the requests that remove a leftover: its streams go back to `defaultSink`, then its
// module is unloaded; the server carries out one connection's requests in order. `callback`
// (may be null) is called with `userdata` as each finishes. Returns the operations, for the
// caller to wait on or unreference.
using OperationCallback = void (*)(pa_context*, int success, void* userdata);
std::vector<pa_operation*> removeLeftover(pa_context* context, const TapSink& tap,
                                          const std::vector<SinkInputPlacement>& sinkInputs,
                                          const std::string& defaultSink,
                                          OperationCallback callback, void* userdata,
                                          const Logger& logger);

}  // namespace quellix::pulse
