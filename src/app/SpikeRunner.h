#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "audio/AudioHardware.h"
#include "desktop/apps/Workspace.h"
#include "support/Logger.h"

namespace quellix {
class MainQueue;
}

// The command-line diagnostic modes. Each logs every step to the system log and to a plain
// file, and returns the process's exit status.
namespace quellix::SpikeRunner {

inline constexpr const char* logPath = "/tmp/quellix-spike.log";

struct Context {
  std::filesystem::path logFile = logPath;
  MainQueue& queue;
  AudioHardware& hardware;
  // The system log, for the modes' lines and those of the services they run.
  std::shared_ptr<LogSink> logs;
  // Where running applications are looked for; the system's when none.
  std::optional<Workspace::Roots> workspaceRoots = std::nullopt;
};

// The current time in UTC, "yyyy-MM-dd HH:mm:ss +0000".
std::string currentDateDescription();

int list(const Context& context);
int taps(const Context& context);
int run(const Context& context, const std::string& target);
int setVolume(const Context& context, const std::string& volume);

// One line to the system log (category "Spike") and appended to the log file, which is
// created on first use and never truncated.
void log(const Context& context, std::string_view message);

}  // namespace quellix::SpikeRunner
