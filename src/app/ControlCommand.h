#pragma once

#include <string>

namespace quellix::ControlCommand {

enum class Action { mute, unmute, toggle, volume };

// Asks the running instance to act on one application over the session bus. Returns 0, or
// writes one line to standard error and returns non-zero: no such application, a volume that
// is no number from 0 to 100, or no instance running.
int run(Action action, const std::string& app, const std::string& volume = {});

}  // namespace quellix::ControlCommand
