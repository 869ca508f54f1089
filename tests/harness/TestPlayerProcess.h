#pragma once

#include <memory>
#include <string>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// The test player as the tests drive it: started, then told to cork, uncork or open a second
// stream, each command confirmed by the player once the server has it.
class TestPlayerProcess {
 public:
  struct Options {
    std::string name = "Quellix Test Player";
    std::string appID;
    double frequency = 440.0;
    double amplitude = 0.5;
    int fakePIDs = 0;  // further corked streams, each claiming pidBase + i
    int pidBase = 0;
    bool reconnect = false;  // connects again when the server comes back
  };

  explicit TestPlayerProcess(Options options);

  pid_t pid() const { return process_->pid(); }
  void command(const std::string& command);
  void kill();
  bool isRunning() { return process_->isRunning(); }

 private:
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace quellix::testing
