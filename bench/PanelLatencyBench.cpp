// The panel's latencies as the user meets them, on the real program:
// - a click on the tray icon until the panel's window is on the screen;
// - a click on an application's row until its sound is gone from the output, against a
//   `pactl set-sink-input-mute` of the same stream in the same recording.
// The output's monitor is recorded throughout; both kinds of mute are started by a separate
// program (xdotool, pactl), so each pays one process start.
//
//   panel_latency_bench [rounds]    (default 10)
//
// QUELLIX_BENCH_WM names a window manager to run on the display (xfwm4, openbox), as on a
// desktop; without one the panel's windows meet no focus handling at all.
#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness/DesktopSession.h"
#include "harness/LevelMeter.h"

namespace {

using namespace quellix::testing;
using Clock = std::chrono::steady_clock;

constexpr int kDefaultRounds = 10;
constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr std::size_t kWindowFrames = kRate / 400;  // 2.5 ms
constexpr double kLoudAbove = -30.0;
constexpr auto kRecorderSettling = std::chrono::milliseconds(1500);
constexpr auto kHold = std::chrono::milliseconds(600);
// Where a mute's fall to silence is looked for, around the time the first pactl mute sets.
constexpr auto kEarliest = std::chrono::milliseconds(50);
constexpr auto kLatest = std::chrono::milliseconds(500);
const QPoint kTrayClick(XServer::kWidth - 40, 12);

double milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

void report(const char* what, const std::vector<double>& values) {
  std::printf("%-44s median %8.1f ms  min %8.1f  max %8.1f  (n=%zu)\n", what,
              values.empty() ? NAN : medianOf(values),
              values.empty() ? NAN : *std::min_element(values.begin(), values.end()),
              values.empty() ? NAN : *std::max_element(values.begin(), values.end()),
              values.size());
}

std::optional<std::string> sinkInputOf(DesktopSession& session, pid_t pid) {
  // Blocks start with "Sink Input #<index>" and list properties as name = "value".
  std::istringstream lines(session.server().pactl({"list", "sink-inputs"}));
  const std::string wanted = "application.process.id = \"" + std::to_string(pid) + "\"";
  std::string index;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Sink Input #", 0) == 0) {
      index = line.substr(std::string("Sink Input #").size());
    } else if (line.find(wanted) != std::string::npos) {
      return index;
    }
  }
  return std::nullopt;
}

// Frame offsets where a loud output falls silent, in order.
std::vector<std::size_t> silenceOnsets(const std::vector<float>& samples) {
  std::vector<std::size_t> onsets;
  bool loud = false;
  const std::size_t windowSamples = kWindowFrames * kChannels;
  for (std::size_t start = 0; start + windowSamples <= samples.size(); start += windowSamples) {
    const double level = levelOf(samples.data() + start, windowSamples);
    if (level > kLoudAbove) {
      loud = true;
    } else if (loud && level < kSilentBelowDbfs) {
      onsets.push_back(start / kChannels);
      loud = false;
    }
  }
  return onsets;
}

}  // namespace

int measure(int rounds) {
  DesktopSession::Options options;
  if (const char* manager = std::getenv("QUELLIX_BENCH_WM")) {
    options.windowManager = {manager};
  }
  DesktopSession session(options);
  const pid_t player = session.play("com.example.alpha").pid();
  const auto quellix = session.startQuellix();
  if (!session.eventually([&] { return session.trayItem().has_value(); },
                          std::chrono::seconds(30))) {
    std::fprintf(stderr, "no tray item\n");
    return 1;
  }
  const auto tray = session.trayHost();
  const auto trayIcon = [&] { return tray->itemProperty(QStringLiteral("IconName")).toString(); };
  const auto shown = [&] { return session.display().visibleWindow("Quellix").has_value(); };

  std::fprintf(stderr, "measuring the tray activation\n");
  std::vector<double> activation;
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    tray->activate(kTrayClick);
    if (!session.eventually(shown, std::chrono::seconds(5))) {
      std::fprintf(stderr, "the panel did not open\n");
      return 1;
    }
    activation.push_back(milliseconds(Clock::now() - start));
    tray->activate(kTrayClick);
    session.eventually([&] { return !shown(); }, std::chrono::seconds(5));
  }

  tray->activate(kTrayClick);
  std::optional<AccessibleUi::Element> row;
  if (!session.eventually([&] {
        return (row = session.ui().showingControl(quellix->pid(), QStringLiteral("alpha"),
                                                  {QStringLiteral(" stummschalten")}))
            .has_value();
      })) {
    std::fprintf(stderr, "no row for the player\n");
    return 1;
  }

  // Events in the order they happen; each mute is the only fall to silence in its span.
  struct Event {
    bool byClick;
    Clock::time_point at;
  };
  std::vector<Event> mutes;
  int lostClicks = 0;
  std::fprintf(stderr, "measuring the mutes\n");
  MonitorRecording recording(session.scratchDir() / "latency.raw", "out1.monitor");
  const auto recordingStart = Clock::now();
  std::this_thread::sleep_for(kRecorderSettling);
  for (int round = 0; round < rounds; ++round) {
    const auto input = sinkInputOf(session, player);
    if (!input) {
      std::fprintf(stderr, "the player's stream is gone\n");
      return 1;
    }
    mutes.push_back({false, Clock::now()});
    session.server().pactl({"set-sink-input-mute", *input, "1"});
    std::this_thread::sleep_for(kHold);
    session.server().pactl({"set-sink-input-mute", *input, "0"});
    std::this_thread::sleep_for(kHold);
  }
  // The clicks after all pactl mutes, so that the two kinds never overlap.
  for (int round = 0; round < rounds; ++round) {
    // Each click is confirmed by the tray icon before the next, so a lost one shows.
    const auto clickUntil = [&](const char* icon) {
      // The row changes its layout with its state: find it anew each time.
      row = session.ui().showingControl(
          quellix->pid(), QStringLiteral("alpha"),
          {QStringLiteral(" stummschalten"), QStringLiteral(" wieder hörbar machen")});
      if (!row) {
        std::fprintf(stderr, "no row on the screen; the panel is %s\n",
                     shown() ? "open" : "closed");
        return std::optional<Clock::time_point>();
      }
      const QPoint centre = row->extents.center();
      const auto at = Clock::now();
      session.display().click(centre.x(), centre.y());
      const bool confirmed =
          session.eventually([&] { return trayIcon() == icon; }, std::chrono::seconds(3));
      session.eventually([] { return false; }, kHold);
      if (!confirmed) {
        const auto after = session.ui().showingControl(
            quellix->pid(), QStringLiteral("alpha"),
            {QStringLiteral(" stummschalten"), QStringLiteral(" wieder hörbar machen")});
        std::fprintf(stderr,
                     "the icon did not follow a click on \"%s\" (now \"%s\", icon %s); the "
                     "panel is %s\n",
                     qPrintable(row->description), after ? qPrintable(after->description) : "",
                     qPrintable(trayIcon()), shown() ? "open" : "closed");
      }
      return confirmed ? std::optional(at) : std::optional<Clock::time_point>();
    };
    if (const auto at = clickUntil("audio-volume-muted-symbolic")) {
      mutes.push_back({true, *at});
    } else {
      ++lostClicks;
    }
    if (!clickUntil("audio-volume-high-symbolic")) {
      ++lostClicks;
      clickUntil("audio-volume-high-symbolic");
    }
  }
  const auto samples = recording.stopSamples();
  const auto onsets = silenceOnsets(samples);
  if (std::getenv("QUELLIX_BENCH_DEBUG")) {
    for (const auto& mute : mutes) {
      std::fprintf(stderr, "%s at %.0f ms\n", mute.byClick ? "click" : "pactl",
                   milliseconds(mute.at - recordingStart));
    }
    for (std::size_t start = 0; start + 4800 * 2 <= samples.size(); start += 4800 * 2) {
      std::fprintf(stderr, "%.1f ", levelOf(samples.data() + start, 4800 * 2));
    }
    std::fprintf(stderr, "\n");
  }
  // Each latency plus one unknown constant (when the recorder's first frame sounded), which
  // the first pactl mute fixes and which cancels in the difference of the two kinds.
  if (onsets.empty()) {
    std::fprintf(stderr, "the output never fell silent\n");
    return 1;
  }
  const double offset = 1000.0 * static_cast<double>(onsets.front()) / kRate -
                        milliseconds(mutes.front().at - recordingStart);
  std::vector<double> byPactl;
  std::vector<double> byClick;
  int unheard = 0;
  for (const auto& mute : mutes) {
    const double asked = milliseconds(mute.at - recordingStart) + offset;
    const auto heard = std::find_if(onsets.begin(), onsets.end(), [&](std::size_t onset) {
      return 1000.0 * static_cast<double>(onset) / kRate >= asked - kEarliest.count();
    });
    const double heardAt =
        heard == onsets.end() ? INFINITY : 1000.0 * static_cast<double>(*heard) / kRate;
    if (heardAt - asked > kLatest.count()) {
      ++unheard;
      continue;
    }
    (mute.byClick ? byClick : byPactl).push_back(heardAt - asked);
  }
  const double baseline = *std::min_element(byPactl.begin(), byPactl.end());
  for (auto* values : {&byPactl, &byClick}) {
    for (double& value : *values) {
      value -= baseline;
    }
  }
  report("tray activation to panel on screen", activation);
  report("pactl mute to silence (less the fastest)", byPactl);
  report("row click to silence (less the fastest pactl)", byClick);
  std::printf("clicks the icon did not confirm: %d; mutes not heard within %lld ms: %d\n",
              lostClicks, static_cast<long long>(kLatest.count()), unheard);
  std::printf("row click to silence, beyond pactl: %.1f ms (median against median)\n",
              medianOf(byClick) - medianOf(byPactl));
  return 0;
}

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  try {
    return measure(argc > 1 ? std::atoi(argv[1]) : kDefaultRounds);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
