#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// mpv playing a sine tone through libpulse, as users' players do, driven over its standard
// input (mpv's JSON commands; it quits when that input closes). Each step is confirmed once
// the sound server shows it.
class TestPlayerProcess {
 public:
  struct Options {
    std::string name = "Quellix Test Player";
    std::string appID;
    double frequency = 440.0;
    double amplitude = 0.5;
    // Started again whenever it ends with an error, as when the server goes away: a desktop
    // application that connects again. pid() is then the shell's that restarts it.
    bool reconnect = false;
    // The desktop entry it is started from, as a launcher starts it; none when empty.
    std::string launchedFrom;
  };

  explicit TestPlayerProcess(Options options);

  // The command line that plays the tone for `options`, with commands read from stdin.
  static std::vector<std::string> arguments(const Options& options);

  pid_t pid() const { return process_->pid(); }
  // "cork", "uncork", or "reopen" (a new stream in place of the old one).
  void command(const std::string& command);
  void kill();
  bool isRunning() { return process_->isRunning(); }

 private:
  // The server's indices of this player's streams, and those that are corked.
  std::set<int> streams(bool corkedOnly = false) const;
  void waitUntil(const std::string& what, const std::function<bool()>& condition) const;

  std::string token_;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace quellix::testing
