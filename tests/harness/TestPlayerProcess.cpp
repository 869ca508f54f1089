#include "harness/TestPlayerProcess.h"

#include <signal.h>

#include <stdexcept>

namespace quellix::testing {

TestPlayerProcess::TestPlayerProcess(Options options) {
  std::vector<std::string> arguments = {QUELLIX_TEST_PLAYER,
                                        "--name",
                                        options.name,
                                        "--frequency",
                                        std::to_string(options.frequency),
                                        "--amplitude",
                                        std::to_string(options.amplitude)};
  if (options.fakePIDs > 0) {
    arguments.insert(arguments.end(), {"--fake-pids", std::to_string(options.fakePIDs),
                                       "--pid-base", std::to_string(options.pidBase)});
  }
  if (options.reconnect) {
    arguments.insert(arguments.end(), {"--reconnect", "1"});
  }
  if (!options.appID.empty()) {
    arguments.insert(arguments.end(), {"--app-id", options.appID});
  }
  process_ = std::make_unique<ChildProcess>(
      arguments, ChildProcess::Options{.pipeStdin = true, .pipeStdout = true});
  if (process_->readLine(std::chrono::seconds(30)) != "ok") {
    throw std::runtime_error("the test player did not start playing");
  }
}

void TestPlayerProcess::command(const std::string& command) {
  process_->send(command);
  if (process_->readLine(std::chrono::seconds(10)) != "ok") {
    throw std::runtime_error("the test player did not confirm " + command);
  }
}

void TestPlayerProcess::kill() {
  process_->signal(SIGKILL);
  process_->wait(std::chrono::seconds(5));
}

}  // namespace quellix::testing
