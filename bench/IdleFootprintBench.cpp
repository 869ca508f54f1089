// The running program at rest: the panel closed, three applications playing and one of them
// muted (its tap live). Measures its resident memory and its CPU time over a span, separately
// for the taps' IO threads and for everything else, and the same for three other volume
// controls started in the same run on the same display, bus and sound server.
//
//   idle_footprint_bench [seconds]    (default 60)
#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ProcessUsage.h"
#include "harness/DesktopSession.h"

namespace {

using namespace quellix::testing;
using bench::Memory;

constexpr int kDefaultSeconds = 60;
constexpr auto kSettleTime = std::chrono::seconds(10);
const std::string kIOThreadName = "quellix-io";

struct Subject {
  std::string name;
  std::unique_ptr<ChildProcess> process;
  Memory memory;
  long ticks = 0;
  long ioTicks = 0;  // the taps' IO threads (Quellix only)
};

// The process and the helpers it started (Quellix's guard), together.
std::vector<pid_t> family(pid_t pid) {
  std::vector<pid_t> pids = {pid};
  for (pid_t child : bench::childrenOf(pid)) {
    pids.push_back(child);
  }
  return pids;
}

long ioTicksOf(pid_t pid) {
  long ticks = 0;
  for (const auto& thread : bench::threadTimesOf(pid)) {
    if (thread.name == kIOThreadName) {
      ticks += thread.ticks;
    }
  }
  return ticks;
}

}  // namespace

int measure(int seconds) {
  DesktopSession session(DesktopSession::Options{
      .preferencesJson =
          R"({"onboardingCompleted": true, "mutedBundleIDs": ["com.example.gamma"]})"});
  session.play("com.example.alpha", "out1", 440.0);
  session.play("com.example.beta", "out1", 550.0);
  session.play("com.example.gamma", "out1", 660.0);

  std::vector<Subject> subjects;
  subjects.push_back({"quellix", session.startQuellix()});
  std::unique_ptr<TrayHost> tray;
  if (!session.eventually(
          [&] {
            tray = session.trayHost();
            return tray && tray->itemProperty(QStringLiteral("IconName")).toString() ==
                               "audio-volume-muted-symbolic";
          },
          std::chrono::seconds(30))) {
    std::fprintf(stderr, "Quellix did not come up with one application muted\n");
    return 1;
  }
  if (session.display().visibleWindow("Quellix")) {
    std::fprintf(stderr, "the panel is open; it must be closed for this measurement\n");
    return 1;
  }
  for (const char* program : {"pavucontrol-qt", "pavucontrol", "pasystray"}) {
    const auto log = session.scratchDir() / (std::string(program) + ".log");
    subjects.push_back({program, std::make_unique<ChildProcess>(
                                     std::vector<std::string>{program},
                                     ChildProcess::Options{.outputFile = log.string()})});
  }
  // Serves the tray watcher meanwhile, as a tray host would.
  const auto wait = [&](std::chrono::seconds span) {
    session.eventually([] { return false; }, span);
  };
  wait(kSettleTime);

  std::vector<long> ticksBefore;
  std::vector<long> ioBefore;
  for (auto& subject : subjects) {
    long ticks = 0;
    for (pid_t pid : family(subject.process->pid())) {
      ticks += bench::cpuTicksOf(pid);
    }
    ticksBefore.push_back(ticks);
    ioBefore.push_back(ioTicksOf(subject.process->pid()));
  }
  wait(std::chrono::seconds(seconds));
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    auto& subject = subjects[i];
    if (!subject.process->isRunning()) {
      std::fprintf(stderr, "%s ended during the measurement\n", subject.name.c_str());
      return 1;
    }
    for (pid_t pid : family(subject.process->pid())) {
      subject.ticks += bench::cpuTicksOf(pid);
      const Memory memory = bench::memoryOf(pid);
      subject.memory.rssKiB += memory.rssKiB;
      subject.memory.pssKiB += memory.pssKiB;
    }
    subject.ticks -= ticksBefore[i];
    subject.ioTicks = ioTicksOf(subject.process->pid()) - ioBefore[i];
  }

  const double tickSeconds = 1.0 / bench::ticksPerSecond();
  const auto percent = [&](long ticks) { return 100.0 * ticks * tickSeconds / seconds; };
  std::printf("Idle over %d s, panel closed, 3 applications playing, 1 muted\n", seconds);
  std::printf("%-16s %10s %10s %10s %12s\n", "program", "RSS MiB", "PSS MiB", "CPU %",
              "CPU % no IO");
  for (const auto& subject : subjects) {
    std::printf("%-16s %10.1f %10.1f %10.2f %12.2f\n", subject.name.c_str(),
                subject.memory.rssKiB / 1024.0, subject.memory.pssKiB / 1024.0,
                percent(subject.ticks), percent(subject.ticks - subject.ioTicks));
  }
  const auto& quellix = subjects.front();
  const auto lightest = [&](auto field) {
    long least = field(subjects[1]);
    for (std::size_t i = 2; i < subjects.size(); ++i) {
      least = std::min(least, field(subjects[i]));
    }
    return static_cast<double>(least);
  };
  std::printf("Quellix / lightest other: RSS %.2f, PSS %.2f (target at most 0.5)\n",
              quellix.memory.rssKiB / lightest([](const Subject& s) { return s.memory.rssKiB; }),
              quellix.memory.pssKiB / lightest([](const Subject& s) { return s.memory.pssKiB; }));
  std::printf("Quellix CPU beyond the taps' IO threads: %.2f %% (%ld ticks; target 0)\n",
              percent(quellix.ticks - quellix.ioTicks), quellix.ticks - quellix.ioTicks);
  return 0;
}

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  try {
    return measure(argc > 1 ? std::atoi(argv[1]) : kDefaultSeconds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
