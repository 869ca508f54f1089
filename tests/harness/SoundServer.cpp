#include "harness/SoundServer.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "harness/LevelMeter.h"

namespace quellix::testing {
namespace {

constexpr auto kStartTimeout = std::chrono::seconds(15);

std::filesystem::path makeRuntimeDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quellix-server-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot create a runtime dir");
  }
  std::filesystem::permissions(pattern, std::filesystem::perms::owner_all);
  return pattern;
}

bool acceptsConnections(const std::filesystem::path& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const bool connected =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

}  // namespace

bool eventually(const std::function<bool()>& condition, const std::function<void()>& pump,
                std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (pump) {
      pump();
    }
    if (condition()) {
      return true;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string SoundServer::name(Kind kind) {
  return kind == Kind::pulseAudio ? "PulseAudio" : "PipeWire";
}

SoundServer::SoundServer(Kind kind) : kind_(kind), runtimeDir_(makeRuntimeDir()) {
  ::setenv("XDG_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  ::setenv("PULSE_RUNTIME_PATH", (runtimeDir_ / "pulse").c_str(), 1);
  ::setenv("HOME", runtimeDir_.c_str(), 1);
  ::unsetenv("PULSE_SERVER");
  if (kind_ == Kind::pipeWire) {
    bus_ = std::make_unique<SessionBus>();
  }
  start();
}

SoundServer::~SoundServer() {
  stop();
  bus_.reset();
  std::error_code error;
  std::filesystem::remove_all(runtimeDir_, error);
}

void SoundServer::start() {
  // A session manager that loses a start-up race now and then gets one more chance.
  constexpr int kAttempts = 2;
  for (int attempt = 1;; ++attempt) {
    try {
      startOnce();
      return;
    } catch (const std::exception&) {
      stop();
      if (attempt == kAttempts) {
        throw;
      }
    }
  }
}

void SoundServer::startOnce() {
  if (kind_ == Kind::pulseAudio) {
    startPulseAudio();
  } else {
    startPipeWire();
  }
  if (!eventually([&] { return answers(); }, {}, kStartTimeout)) {
    throw std::runtime_error(name(kind_) + " did not start; see " + runtimeDir_.string());
  }
  if (kind_ == Kind::pipeWire) {
    createSinks();
  }
}

void SoundServer::stop() {
  for (auto it = processes_.rbegin(); it != processes_.rend(); ++it) {
    (*it)->signal(SIGKILL);
    (*it)->wait(std::chrono::seconds(5));
  }
  processes_.clear();
  // Killed servers leave their sockets behind; a restart must not find them.
  std::error_code error;
  for (const auto& socket :
       {socketPath(), runtimeDir_ / "pipewire-0", runtimeDir_ / "pipewire-0.lock",
        runtimeDir_ / "pipewire-0-manager", runtimeDir_ / "pipewire-0-manager.lock"}) {
    std::filesystem::remove(socket, error);
  }
}

void SoundServer::signal(int signal) {
  for (const auto& process : processes_) {
    process->signal(signal);
  }
}

void SoundServer::startPulseAudio() {
  const auto script = runtimeDir_ / "quellix-test.pa";
  std::ofstream(script) << "load-module module-native-protocol-unix auth-anonymous=1\n"
                           "load-module module-null-sink sink_name=out1 rate=48000\n"
                           "load-module module-null-sink sink_name=out2 rate=48000\n"
                           "set-default-sink out1\n";
  processes_.push_back(std::make_unique<ChildProcess>(
      std::vector<std::string>{"pulseaudio", "-n", "-F", script.string(), "--daemonize=no",
                               "--exit-idle-time=-1", "--use-pid-file=no", "--log-target=stderr"},
      ChildProcess::Options{.outputFile = (runtimeDir_ / "server.log").string()}));
}

void SoundServer::startPipeWire() {
  const std::string log = (runtimeDir_ / "server.log").string();
  processes_.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{"pipewire"},
                                                      ChildProcess::Options{.outputFile = log}));
  // Its clients give up at once when the daemon's socket does not answer yet.
  if (!eventually([&] { return acceptsConnections(runtimeDir_ / "pipewire-0"); }, {},
                  kStartTimeout)) {
    throw std::runtime_error("pipewire did not open its socket");
  }
  for (const char* program : {"wireplumber", "pipewire-pulse"}) {
    processes_.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{program},
                                                        ChildProcess::Options{.outputFile = log}));
  }
}

void SoundServer::createSinks() {
  for (const char* sink : {"out1", "out2"}) {
    pactl({"load-module", "module-null-sink", std::string("sink_name=") + sink, "rate=48000"});
  }
  // The sinks may take a moment to appear after their modules loaded.
  if (!setDefaultSink("out1")) {
    std::ifstream log(runtimeDir_ / "server.log");
    throw std::runtime_error("the default sink did not become out1; the server said:\n" +
                             std::string(std::istreambuf_iterator<char>(log), {}));
  }
}

bool SoundServer::setDefaultSink(const std::string& name) const {
  return eventually(
      [&] {
        try {
          pactl({"set-default-sink", name});
          return pactl({"get-default-sink"}) == name + "\n";
        } catch (const std::exception&) {
          return false;
        }
      },
      {}, kStartTimeout);
}

bool SoundServer::answers() const {
  try {
    pactl({"info"});
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

double SoundServer::level(const std::string& sink, std::chrono::milliseconds span) {
  return settledLevel(runtimeDir_, sink + ".monitor", span, &lastLevels_);
}

std::vector<SoundServer::SinkInput> SoundServer::sinkInputs() const {
  // "list short" gives a sink by number; the sinks' own listing names the numbers.
  std::map<std::string, std::string> sinkNames;
  std::istringstream sinks(pactl({"list", "short", "sinks"}));
  for (std::string index, name, rest; sinks >> index >> name && std::getline(sinks, rest);) {
    sinkNames[index] = name;
  }
  std::vector<SinkInput> inputs;
  std::istringstream streams(pactl({"list", "short", "sink-inputs"}));
  for (std::string index, sink, rest; streams >> index >> sink && std::getline(streams, rest);) {
    inputs.push_back({index, sinkNames[sink]});
  }
  return inputs;
}

bool SoundServer::holdsNothingOfOurs() const {
  return pactl({"list", "short", "modules"}).find("quellix") == std::string::npos &&
         pactl({"list", "short", "sinks"}).find("quellix") == std::string::npos &&
         pactl({"list", "sink-inputs"}).find("quellix.io") == std::string::npos;
}

void SoundServer::removeSink(const std::string& sink) const {
  std::istringstream modules(pactl({"list", "short", "modules"}));
  for (std::string line; std::getline(modules, line);) {
    if (line.find("sink_name=" + sink) != std::string::npos) {
      pactl({"unload-module", line.substr(0, line.find('\t'))});
      return;
    }
  }
  throw std::runtime_error("no module made the sink " + sink);
}

std::string SoundServer::pactl(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {"pactl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runProgram(command);
}

int SoundServer::volumePercent(const std::string& sink) const {
  const std::string output = pactl({"get-sink-volume", sink});
  const auto percent = output.find('%');
  const auto start = output.rfind(' ', percent);
  return std::stoi(output.substr(start + 1, percent - start - 1));
}

}  // namespace quellix::testing
