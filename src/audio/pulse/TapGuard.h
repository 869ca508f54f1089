#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "audio/pulse/LeftoverTaps.h"
#include "support/Logger.h"

// The sound server keeps the tap sinks of a process that ended, and with them the sound of
// every application they hold. A guard process watches the program and, once it has ended by
// whatever means (a quit, a signal, a crash), removes its tap sinks so every stream plays
// directly again. It runs no code of the program beyond this and costs a blocked read while
// it waits.
namespace quellix::TapGuard {

// Forks the guard. Call first thing in main, while the process has only one thread: the
// guard is a copy of the process as it is then. Returns the guard's PID, or none when it
// could not be started (the sweep at the next start still removes what is left). The guard
// logs what it removes to `logs`.
std::optional<pid_t> start(const std::shared_ptr<LogSink>& logs);

// What the guard does once its program has ended, also on its own: connects to `server`
// (empty: the usual one), moves the streams of every leftover tap sink (those of `ended`, and
// those whose owner is gone) back to the default output and removes the sinks. Returns how
// many it removed, or none when the server could not be reached within `timeout`.
std::optional<int> sweep(const std::optional<pulse::TapOwner>& ended, const std::string& server,
                         std::chrono::milliseconds timeout, std::shared_ptr<LogSink> logs);

}  // namespace quellix::TapGuard
