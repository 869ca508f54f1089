// The panel's latencies as the user meets them, on the real program:
// - a click on the tray icon until the panel's window is on the screen;
// - a click on an application's row until its sound is gone from the output, against a
//   `pactl set-sink-input-mute` of the same stream in the same recording.
// The output's monitor is recorded throughout; both kinds of mute are started by a separate
// program (xdotool, pactl), so each pays one process start.
//
//   panel_latency_bench [rounds]    (default 10)
#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "DesktopSession.h"
#include "LevelMeter.h"

namespace {

using namespace quellix::testing;
using Clock = std::chrono::steady_clock;

constexpr int kDefaultRounds = 10;
constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr std::size_t kWindowFrames = kRate / 400;  // 2.5 ms
constexpr double kLoudAbove = -30.0;
constexpr double kSilentBelow = -80.0;
constexpr auto kRecorderSettling = std::chrono::milliseconds(1500);
constexpr auto kHold = std::chrono::milliseconds(600);
const QPoint kTrayClick(XServer::kWidth - 40, 12);

double milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

double median(std::vector<double> values) {
  if (values.empty()) {
    return NAN;
  }
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void report(const char* what, const std::vector<double>& values) {
  std::printf("%-44s median %8.1f ms  min %8.1f  max %8.1f  (n=%zu)\n", what, median(values),
              values.empty() ? NAN : *std::min_element(values.begin(), values.end()),
              values.empty() ? NAN : *std::max_element(values.begin(), values.end()),
              values.size());
}

std::optional<std::string> sinkInputOf(const DesktopSession& session, pid_t pid) {
  const auto inputs = nlohmann::json::parse(
      const_cast<DesktopSession&>(session).server().pactl({"-f", "json", "list", "sink-inputs"}));
  for (const auto& input : inputs) {
    const auto& properties = input.value("properties", nlohmann::json::object());
    if (properties.value("application.process.id", "") == std::to_string(pid)) {
      return std::to_string(input.at("index").get<int>());
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
    } else if (loud && level < kSilentBelow) {
      onsets.push_back(start / kChannels);
      loud = false;
    }
  }
  return onsets;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : kDefaultRounds;
  QCoreApplication application(argc, argv);
  DesktopSession session(DesktopSession::Options{});
  const pid_t player = session.play("com.example.alpha").pid();
  const auto quellix = session.startQuellix();
  if (!session.eventually([&] { return session.trayItem().has_value(); },
                          std::chrono::seconds(30))) {
    std::fprintf(stderr, "no tray item\n");
    return 1;
  }
  const auto shown = [&] { return session.display().visibleWindow("Quellix").has_value(); };

  std::vector<double> activation;
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    session.activateTrayItem(kTrayClick);
    if (!session.eventually(shown, std::chrono::seconds(5))) {
      std::fprintf(stderr, "the panel did not open\n");
      return 1;
    }
    activation.push_back(milliseconds(Clock::now() - start));
    session.activateTrayItem(kTrayClick);
    session.eventually([&] { return !shown(); }, std::chrono::seconds(5));
  }

  session.activateTrayItem(kTrayClick);
  std::optional<AccessibleUi::Element> row;
  if (!session.eventually([&] {
        return (row = session.ui().showingButton(quellix->pid(), QStringLiteral("alpha"),
                                                 {QStringLiteral(" stummschalten")}))
            .has_value();
      })) {
    std::fprintf(stderr, "no row for the player\n");
    return 1;
  }
  const QPoint centre = row->extents.center();

  // Events in the order they happen; each mute is the only fall to silence in its span.
  struct Event {
    bool byClick;
    Clock::time_point at;
  };
  std::vector<Event> mutes;
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

    mutes.push_back({true, Clock::now()});
    session.display().click(centre.x(), centre.y());
    session.eventually([] { return false; }, kHold);
    session.display().click(centre.x(), centre.y());
    session.eventually([] { return false; }, kHold);
  }
  const auto onsets = silenceOnsets(recording.stopSamples());
  if (onsets.size() != mutes.size()) {
    std::fprintf(stderr, "found %zu falls to silence for %zu mutes\n", onsets.size(), mutes.size());
    return 1;
  }
  // Each latency plus one unknown constant (when the recorder's first frame sounded); the
  // constant cancels in the difference of the two kinds.
  std::vector<double> byPactl;
  std::vector<double> byClick;
  for (std::size_t i = 0; i < mutes.size(); ++i) {
    const double heard = 1000.0 * static_cast<double>(onsets[i]) / kRate;
    const double asked = milliseconds(mutes[i].at - recordingStart);
    (mutes[i].byClick ? byClick : byPactl).push_back(heard - asked);
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
  std::printf("row click to silence, beyond pactl: %.1f ms (median against median)\n",
              median(byClick) - median(byPactl));
  return 0;
}
