// Ten thousand panel operations (slider steps, toggles, mute all, unmute all) through the mute
// controller on a private sound server, while players start and stop every few hundred
// milliseconds. Reports the server's count of our objects against its baseline, this
// process's memory after warm-up against the end, and every error line that a player's
// leaving does not explain.
//
//   soak_bench [pulseaudio|pipewire] [steps]
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "audio/pulse/PulseBackend.h"
#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/MuteController.h"
#include "harness/SoakSequence.h"
#include "harness/SoundServer.h"
#include "harness/TestPlayerProcess.h"
#include "harness/TestSupport.h"
#include "support/ManualQueue.h"

namespace {

using namespace quellix;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kDefaultSteps = 10000;
constexpr std::size_t kWarmUpSteps = 1000;
constexpr auto kChurnInterval = std::chrono::milliseconds(300);
constexpr std::size_t kPlayers = 3;
constexpr auto kSettleTime = std::chrono::seconds(10);

// Keeps the error lines only, so the log itself does not grow with the run.
class ErrorSink final : public LogSink {
 public:
  void write(const LogEntry& entry) override {
    std::lock_guard lock(mutex_);
    ++lines_;
    if (entry.level == LogLevel::error) {
      errors_.push_back("[" + entry.category + "] " + entry.message);
    }
  }
  std::vector<std::string> errors() const {
    std::lock_guard lock(mutex_);
    return errors_;
  }
  std::size_t lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::size_t lines_ = 0;
  std::vector<std::string> errors_;
};

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::stol(line.substr(6));
    }
  }
  return 0;
}

long heapKiB() {
  return static_cast<long>(mallinfo2().uordblks / 1024);
}

// The lines of `text` that hold `word`.
std::size_t linesWith(const std::string& text, const std::string& word) {
  std::istringstream lines(text);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) {
    count += line.find(word) != std::string::npos ? 1 : 0;
  }
  return count;
}

// Our modules (tap sinks) and our IO streams, as the server lists them.
std::size_t ourObjects(const quellix::testing::SoundServer& server) {
  return linesWith(server.pactl({"list", "short", "modules"}), "quellix") +
         linesWith(server.pactl({"list", "sink-inputs"}), "quellix.io =") +
         linesWith(server.pactl({"list", "source-outputs"}), "quellix.io =");
}

// A tap over a player that stopped a moment earlier fails: that is the player's leaving.
bool explainedByALeavingPlayer(const std::string& error) {
  return error.find("fehlgeschlagen") != std::string::npos &&
         error.find("(!obj)") != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  const bool pipeWire = argc > 1 && std::string(argv[1]) == "pipewire";
  const std::size_t stepCount = argc > 2 ? std::stoul(argv[2]) : kDefaultSteps;
  auto sink = std::make_shared<ErrorSink>();
  quellix::testing::SoundServer server(pipeWire ? quellix::testing::SoundServer::Kind::pipeWire
                                                : quellix::testing::SoundServer::Kind::pulseAudio);
  const std::size_t baseline = ourObjects(server);
  auto hardware = std::make_unique<AudioHardware>(PulseBackend::create({}, sink));

  quellix::testing::TemporaryDirectory directory;
  ManualQueue queue;
  SystemWallClock clock;
  DefaultsStore defaults(directory.path() / "preferences.json", queue, sink);
  auto controller = MuteController::create(queue, *hardware, defaults, clock, sink);
  auto roots = Workspace::systemRoots();
  roots.dataDirs = {directory.path()};
  auto monitor =
      AudioProcessMonitor::create(queue, *hardware, std::make_shared<Workspace>(roots), sink);
  monitor->setOnChange([&](const std::vector<AudioApp>& apps) { controller->reconcile(apps); });
  monitor->start();

  std::deque<std::unique_ptr<quellix::testing::TestPlayerProcess>> players;
  std::size_t started = 0;
  auto startPlayer = [&] {
    const std::size_t slot = started++ % kPlayers;
    players.push_back(std::make_unique<quellix::testing::TestPlayerProcess>(
        quellix::testing::TestPlayerProcess::Options{
            .appID = "org.example.Player" + std::to_string(slot),
            .frequency = 440.0 + 110.0 * static_cast<double>(slot)}));
  };
  for (std::size_t i = 0; i < kPlayers; ++i) {
    startPlayer();
  }

  const auto steps = quellix::testing::soakSequence(stepCount);
  long warmResident = 0;
  long warmHeap = 0;
  std::size_t mostObjects = 0;
  std::size_t mostTaps = 0;
  const auto began = Clock::now();
  auto nextChurn = began + kChurnInterval;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (Clock::now() >= nextChurn) {
      if (players.size() == kPlayers) {
        players.front()->kill();
        players.pop_front();
      } else {
        startPlayer();
      }
      nextChurn = Clock::now() + kChurnInterval;
    }
    queue.drain();
    quellix::testing::apply(steps[i], *controller, monitor->apps().get());
    queue.drain();
    mostTaps = std::max(mostTaps, controller->tapCount());
    if (i + 1 == kWarmUpSteps) {
      warmResident = residentKiB();
      warmHeap = heapKiB();
    }
    if ((i + 1) % 1000 == 0) {
      mostObjects = std::max(mostObjects, ourObjects(server));
      std::fprintf(stderr, "%zu steps, %zu taps, RSS %ld KiB, heap %ld KiB\n", i + 1,
                   controller->tapCount(), residentKiB(), heapKiB());
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - began).count();
  const long endResident = residentKiB();
  const long endHeap = heapKiB();

  quellix::testing::releaseAll(*controller, monitor->apps().get());
  queue.drain();
  std::size_t left = ourObjects(server);
  for (const auto deadline = Clock::now() + kSettleTime;
       left != baseline && Clock::now() < deadline; left = ourObjects(server)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    queue.drain();
  }

  std::size_t explained = 0;
  std::vector<std::string> unexpected;
  for (const auto& error : sink->errors()) {
    if (explainedByALeavingPlayer(error)) {
      ++explained;
    } else {
      unexpected.push_back(error);
    }
  }
  std::printf("%s: %zu steps in %.1f s (%.2f ms each), %zu players started, at most %zu taps\n",
              pipeWire ? "PipeWire" : "PulseAudio", steps.size(), seconds,
              seconds * 1000.0 / static_cast<double>(steps.size()), started, mostTaps);
  std::printf("our objects on the server: baseline %zu, at most %zu (sampled), at the end %zu\n",
              baseline, mostObjects, left);
  std::printf(
      "memory after %zu steps: RSS %ld KiB, heap %ld KiB; at the end: RSS %ld KiB "
      "(%+ld), heap %ld KiB (%+ld)\n",
      kWarmUpSteps, warmResident, warmHeap, endResident, endResident - warmResident, endHeap,
      endHeap - warmHeap);
  std::printf("log lines %zu; errors explained by a leaving player %zu; unexpected %zu\n",
              sink->lines(), explained, unexpected.size());
  for (const auto& error : unexpected) {
    std::printf("  %s\n", error.c_str());
  }

  players.clear();
  monitor.reset();
  controller.reset();
  hardware.reset();
  const bool passed = left == baseline && endResident - warmResident < 1024 && unexpected.empty();
  std::printf("%s\n", passed ? "PASS" : "FAIL");
  return passed ? 0 : 1;
}
