#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "harness/ChildProcess.h"
#include "harness/SessionBus.h"

namespace quellix::testing {

// A private sound server for one test: its own runtime dir, two null sinks "out1" (the
// default) and "out2". This process's environment points libpulse at it, so every client the
// test starts finds it.
class SoundServer {
 public:
  enum class Kind { pulseAudio, pipeWire };

  explicit SoundServer(Kind kind);
  ~SoundServer();
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  void stop();
  void start();
  // To each of its processes: SIGSTOP makes a server that hangs, SIGCONT brings it back.
  void signal(int signal);

  std::string pactl(const std::vector<std::string>& arguments) const;
  // `sink`'s volume in percent, as pactl reports it for the first channel.
  int volumePercent(const std::string& sink) const;
  // Until the server reports it: PipeWire's session manager may still be applying an earlier
  // choice and silently keep it. False when it never does.
  bool setDefaultSink(const std::string& name) const;
  std::filesystem::path socketPath() const { return runtimeDir_ / "pulse" / "native"; }
  const std::filesystem::path& runtimeDir() const { return runtimeDir_; }

  // The median level at `sink`'s output once the recorder settled; lastLevels() lists every
  // window of that recording, for a failure's message.
  double level(const std::string& sink = "out1",
               std::chrono::milliseconds span = std::chrono::milliseconds(1500));
  const std::string& lastLevels() const { return lastLevels_; }

  struct SinkInput {
    std::string index;
    std::string sink;  // its name
  };
  std::vector<SinkInput> sinkInputs() const;
  // Whether the server holds anything of Quellix's: a module, a sink or a stream.
  bool holdsNothingOfOurs() const;
  // Unloads the module that made `sink`, as when its device is unplugged.
  void removeSink(const std::string& sink) const;

  static std::string name(Kind kind);

 private:
  void startOnce();
  void startPulseAudio();
  void startPipeWire();
  void createSinks();
  bool answers() const;

  Kind kind_;
  std::filesystem::path runtimeDir_;
  std::vector<std::unique_ptr<ChildProcess>> processes_;
  std::unique_ptr<SessionBus> bus_;  // PipeWire's session manager needs one
  std::string lastLevels_;
};

// Polls `condition` (running `pump` before each look) until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition, const std::function<void()>& pump = {},
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace quellix::testing
