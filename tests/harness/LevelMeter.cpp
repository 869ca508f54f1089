#include "harness/LevelMeter.h"

#include <signal.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <thread>

namespace quellix::testing {

namespace {
constexpr int kRate = 48000;
constexpr int kChannels = 2;
}  // namespace

double levelOf(const float* samples, std::size_t count) {
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) {
    sum += static_cast<double>(samples[i]) * samples[i];
  }
  const double rms = count > 0 ? std::sqrt(sum / static_cast<double>(count)) : 0.0;
  return rms > 0 ? 20.0 * std::log10(rms) : MonitorRecording::kSilence;
}

MonitorRecording::MonitorRecording(const std::filesystem::path& file, const std::string& source)
    : file_(file) {
  const std::string command = "exec parec --device='" + source +
                              "' --format=float32le --channels=2 --rate=48000 --raw "
                              "--latency-msec=10 > '" +
                              file_.string() + "' 2> '" + file_.string() + ".log'";
  recorder_ = std::make_unique<ChildProcess>(std::vector<std::string>{"sh", "-c", command},
                                             ChildProcess::Options{});
}

MonitorRecording::~MonitorRecording() {
  if (recorder_) {
    recorder_->signal(SIGTERM);
  }
}

bool MonitorRecording::hasRecorded(std::chrono::milliseconds span) const {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(file_, error);
  return !error && bytes >= static_cast<std::uintmax_t>(kRate * span.count() / 1000) * kChannels *
                                sizeof(float);
}

std::vector<float> MonitorRecording::stopSamples() {
  recorder_->signal(SIGTERM);
  recorder_->wait(std::chrono::seconds(5));
  recorder_.reset();
  std::ifstream input(file_, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(input)), {});
  std::vector<float> samples(bytes.size() / sizeof(float));
  std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
  return samples;
}

std::vector<double> MonitorRecording::stop(std::chrono::milliseconds window) {
  const auto samples = stopSamples();
  const std::size_t perWindow = static_cast<std::size_t>(kRate * window.count() / 1000) * kChannels;
  std::vector<double> levels;
  for (std::size_t at = 0; at + perWindow <= samples.size(); at += perWindow) {
    levels.push_back(levelOf(samples.data() + at, perWindow));
  }
  return levels;
}

double medianOf(std::vector<double> levels) {
  if (levels.empty()) {
    return MonitorRecording::kSilence;
  }
  std::nth_element(levels.begin(), levels.begin() + static_cast<long>(levels.size() / 2),
                   levels.end());
  return levels[levels.size() / 2];
}

double medianOfLast(const std::vector<double>& levels, std::size_t count) {
  const auto first =
      levels.size() > count ? levels.end() - static_cast<long>(count) : levels.begin();
  return medianOf(std::vector<double>(first, levels.end()));
}

std::string describeLevels(const std::vector<double>& levels) {
  std::string text;
  for (double level : levels) {
    text += std::to_string(level).substr(0, 6) + " ";
  }
  return text;
}

double settledLevel(const std::filesystem::path& scratchDir, const std::string& source,
                    std::chrono::milliseconds span, std::string* levels) {
  // parec needs about a second before it delivers what the source plays.
  constexpr std::chrono::milliseconds kRecorderSettling{1500};
  constexpr std::chrono::milliseconds kWindow{250};
  MonitorRecording recording(scratchDir / ("level-" + source + ".raw"), source);
  std::this_thread::sleep_for(kRecorderSettling + span);
  const auto all = recording.stop(kWindow);
  if (levels != nullptr) {
    *levels = describeLevels(all);
  }
  return medianOfLast(all, static_cast<std::size_t>(span / kWindow));
}

}  // namespace quellix::testing
