#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "harness/ChildProcess.h"

namespace quellix::testing {

// Below this an output counts as silent, above kHeardAboveDbfs as playing.
constexpr double kSilentBelowDbfs = -60.0;
constexpr double kHeardAboveDbfs = -20.0;
// A sine of amplitude 0.5, the test player's own: its RMS level.
constexpr double kToneDbfs = -9.03;
// A gain of 0.5, and the sum of two such tones at different pitches.
constexpr double kHalfGainDb = -6.02;
constexpr double kTwoTonesDb = 3.01;
// How far a level measured at the output may stray from the one expected.
constexpr double kLevelToleranceDb = 0.5;

// Records a source (a sink's monitor) in the background as float32 stereo at 48 kHz, and
// reports the level of each window of the recording in dBFS (RMS).
class MonitorRecording {
 public:
  static constexpr double kSilence = -240.0;

  MonitorRecording(const std::filesystem::path& file, const std::string& source);
  ~MonitorRecording();

  // Whether the recorder has delivered `span` of sound yet (it starts late, and later on a
  // busy machine).
  bool hasRecorded(std::chrono::milliseconds span) const;
  // Stops and returns the level of each `window` of the recording.
  std::vector<double> stop(std::chrono::milliseconds window = std::chrono::milliseconds(250));
  // Stops and returns what was recorded, interleaved.
  std::vector<float> stopSamples();

 private:
  std::filesystem::path file_;
  std::unique_ptr<ChildProcess> recorder_;
};

// The RMS level of interleaved samples in dBFS.
double levelOf(const float* samples, std::size_t count);

// The median level of `source` over the last `span` of a recording long enough for the
// recorder to settle; `levels`, when given, receives every window's level as text.
double settledLevel(const std::filesystem::path& scratchDir, const std::string& source,
                    std::chrono::milliseconds span = std::chrono::milliseconds(1500),
                    std::string* levels = nullptr);

double medianOf(std::vector<double> levels);
// The median of the last `count` levels.
double medianOfLast(const std::vector<double>& levels, std::size_t count);
// Levels as text for a failure's message.
std::string describeLevels(const std::vector<double>& levels);

}  // namespace quellix::testing
