#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/Logger.h"

namespace quellix::QuellixMain {

enum class Mode { spike, list, taps, volset, mute, unmute, toggle, volume, application };

struct Invocation {
  Mode mode = Mode::application;
  std::string argument;  // the target of --spike or of a control command, the number of --volset
  std::string value;     // the number of --volume

  friend bool operator==(const Invocation&, const Invocation&) = default;
};

// Decides what a command line asks for; the whole argument vector, program path included.
Invocation dispatch(const std::vector<std::string>& arguments);

// Runs the application mode, logging to `logs`, and returns its exit status.
using ApplicationRunner = int (*)(int argc, char** argv, std::shared_ptr<LogSink> logs);

// The program's entry: runs a diagnostic mode and returns its exit status, or the application.
// The application sits above this layer, so the caller says how to run it.
int main(int argc, char** argv, ApplicationRunner runApplication);

}  // namespace quellix::QuellixMain
