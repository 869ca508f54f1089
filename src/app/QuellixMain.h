#pragma once

#include <string>
#include <vector>

namespace quellix::QuellixMain {

enum class Mode { spike, list, taps, volset, application };

struct Invocation {
  Mode mode = Mode::application;
  std::string argument;  // the target of --spike, the number of --volset

  friend bool operator==(const Invocation&, const Invocation&) = default;
};

// Decides what a command line asks for; the whole argument vector, program path included.
Invocation dispatch(const std::vector<std::string>& arguments);

// The program's entry: runs a diagnostic mode and returns its exit status, or the application.
int main(int argc, char** argv);

}  // namespace quellix::QuellixMain
