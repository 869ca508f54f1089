#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "audio/AudioHardware.h"
#include "support/Logger.h"

namespace quellix {

class TapRenderer;

// Silences or attenuates one application without a driver: a process tap keeps its sound
// from the output, and an IO procedure on a private aggregate device plays the captured
// sound back times `gain`. Main thread only; the owner must call invalidate() before dropping
// a tap, since destruction leaves the audio system alone.
class ProcessMuteTap {
 public:
  // Every aggregate device we create has a UID that starts with this.
  static const std::string kAggregateUIDPrefix;

  // Builds and starts the tap, the aggregate device and the IO procedure, which plays on the
  // output device `outputUID` (empty: the default output). Throws TextError and leaves nothing
  // behind when any step fails.
  ProcessMuteTap(AudioHardware& hardware, std::string label,
                 std::vector<AudioObjectID> processObjectIDs, float gain,
                 std::shared_ptr<LogSink> logs, std::string outputUID = {});
  ~ProcessMuteTap();
  ProcessMuteTap(const ProcessMuteTap&) = delete;
  ProcessMuteTap& operator=(const ProcessMuteTap&) = delete;

  // Takes effect at the next IO cycle; nothing is rebuilt.
  void setGain(float gain);
  float gain() const;

  // Destroys the audio objects; a second call does nothing.
  void invalidate();

  AudioObjectID tapID() const { return tapID_; }
  AudioObjectID aggregateID() const { return aggregateID_; }
  const std::string& label() const { return label_; }
  // The device it plays on as it was asked for: empty while it follows the default output.
  const std::string& outputUID() const { return outputUID_; }

  // Removes aggregate devices an earlier run left behind.
  static void sweepOrphans(AudioHardware& hardware, std::shared_ptr<LogSink> logs);

 private:
  void teardown();
  void logFormat() const;

  AudioHardware& hardware_;
  std::string label_;
  std::string outputUID_;
  AudioObjectID tapID_ = kAudioObjectUnknown;
  AudioObjectID aggregateID_ = kAudioObjectUnknown;
  std::optional<AudioDeviceIOProcID> ioProcID_;
  std::shared_ptr<TapRenderer> renderer_;
  Logger logger_;
};

}  // namespace quellix
