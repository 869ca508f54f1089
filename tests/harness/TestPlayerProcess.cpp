#include "harness/TestPlayerProcess.h"

#include <signal.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "harness/SoundServer.h"

namespace quellix::testing {

std::vector<std::string> TestPlayerProcess::arguments(const Options& options) {
  std::ostringstream wave;
  wave << options.amplitude << "*sin(2*PI*" << options.frequency << "*t)";
  std::vector<std::string> result = {
      "mpv",
      "--no-config",
      "--really-quiet",
      "--no-video",
      "--ytdl=no",
      "--load-scripts=no",
      "--ao=pulse",
      "--audio-client-name=" + options.name,
      "--input-ipc-client=fd://0",
      "av://lavfi:aevalsrc=" + wave.str() + "|" + wave.str() + ":s=48000"};
  if (!options.appID.empty()) {
    result.insert(result.begin(), {"env", "PULSE_PROP=application.id=" + options.appID});
  }
  return result;
}

TestPlayerProcess::TestPlayerProcess(Options options) {
  static int started = 0;
  token_ = std::to_string(::getpid()) + "." + std::to_string(++started);
  auto command = arguments(options);
  command.insert(command.begin(), {"env", "PULSE_PROP_quellix.test.player=" + token_});
  if (!options.launchedFrom.empty()) {
    command.insert(command.begin(), {"sh", "-c",
                                     "exec env GIO_LAUNCHED_DESKTOP_FILE=\"$0\" "
                                     "GIO_LAUNCHED_DESKTOP_FILE_PID=$$ \"$@\"",
                                     options.launchedFrom});
  }
  if (options.reconnect) {
    // mpv ends with status 0 only when its input closes.
    command.insert(command.begin(), {"sh", "-c", "until \"$@\"; do sleep 0.2; done", "player"});
  }
  process_ = std::make_unique<ChildProcess>(command, ChildProcess::Options{.pipeStdin = true});
  waitUntil("start playing", [&] { return !streams().empty(); });
}

void TestPlayerProcess::command(const std::string& command) {
  const auto before = streams();
  if (command == "cork") {
    process_->send(R"({"command": ["set_property", "pause", true]})");
    waitUntil(command, [&] { return streams(true) == streams(); });
  } else if (command == "uncork") {
    process_->send(R"({"command": ["set_property", "pause", false]})");
    waitUntil(command, [&] { return streams(true).empty(); });
  } else if (command == "reopen") {
    process_->send(R"({"command": ["ao-reload"]})");
    waitUntil(command, [&] {
      const auto now = streams();
      return !now.empty() && *now.rbegin() > *before.rbegin();
    });
  } else {
    throw std::invalid_argument("no such player command: " + command);
  }
}

void TestPlayerProcess::kill() {
  process_->signal(SIGKILL);
  process_->wait(std::chrono::seconds(5));
}

std::set<int> TestPlayerProcess::streams(bool corkedOnly) const {
  std::istringstream list(runProgram({"pactl", "list", "sink-inputs"}));
  std::set<int> result;
  std::string line;
  int index = -1;
  bool corked = false;
  while (std::getline(list, line)) {
    if (line.rfind("Sink Input #", 0) == 0) {
      index = std::stoi(line.substr(12));
    } else if (line.find("Corked: ") != std::string::npos) {
      corked = line.find("yes") != std::string::npos;
    } else if (line.find("quellix.test.player = \"" + token_ + "\"") != std::string::npos &&
               (corked || !corkedOnly)) {
      result.insert(index);
    }
  }
  return result;
}

void TestPlayerProcess::waitUntil(const std::string& what,
                                  const std::function<bool()>& condition) const {
  if (!eventually(condition, {}, std::chrono::seconds(30))) {
    throw std::runtime_error("the test player did not " + what);
  }
}

}  // namespace quellix::testing
