#include "audio/pulse/LeftoverTaps.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "support/Logger.h"

namespace quellix::pulse {
namespace {

// In /proc/PID/stat after the command's closing parenthesis: the state first, the start time
// twentieth.
constexpr int kStartTimeField = 20;

}  // namespace

std::string processStartTime(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  const std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const auto close = stat.rfind(')');
  if (close == std::string::npos) {
    return {};
  }
  std::istringstream fields(stat.substr(close + 1));
  std::string field;
  for (int i = 0; i < kStartTimeField && fields >> field; ++i) {
    if (i == 0 && (field == "Z" || field == "X")) {
      return {};
    }
  }
  return fields ? field : std::string();
}

TapOwner currentProcess() {
  return {static_cast<SInt32>(::getpid()), processStartTime(::getpid())};
}

bool isLeftover(const TapSink& tap, const std::optional<TapOwner>& ended) {
  if (ended && tap.ownerPID == ended->pid && tap.ownerStart == ended->start) {
    return true;
  }
  return tap.ownerPID <= 0 || tap.ownerStart.empty() ||
         processStartTime(tap.ownerPID) != tap.ownerStart;
}

std::vector<pa_operation*> removeLeftover(pa_context* context, const TapSink& tap,
                                          const std::vector<SinkInputPlacement>& sinkInputs,
                                          const std::string& defaultSink,
                                          OperationCallback callback, void* userdata,
                                          const Logger& logger) {
  std::vector<pa_operation*> operations;
  auto issued = [&](pa_operation* operation) {
    if (operation != nullptr) {
      operations.push_back(operation);
    }
  };
  for (const auto& placement : sinkInputs) {
    if (placement.sink == tap.index && !defaultSink.empty()) {
      issued(pa_context_move_sink_input_by_name(context, placement.index, defaultSink.c_str(),
                                                callback, userdata));
    }
  }
  if (tap.ownerModule != kInvalidIndex) {
    issued(pa_context_unload_module(context, tap.ownerModule, callback, userdata));
  }
  logger.error("Removed the leftover tap " + tap.name + " of process " +
               std::to_string(tap.ownerPID));
  return operations;
}

}  // namespace quellix::pulse
