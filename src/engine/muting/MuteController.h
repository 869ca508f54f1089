#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/ProcessMuteTap.h"
#include "support/DefaultsStore.h"
#include "support/Logger.h"
#include "support/MainQueue.h"
#include "support/Observable.h"
#include "support/WallClock.h"

namespace quellix {

// An output device an application can be sent to, as the audio system names it.
struct OutputDevice {
  AudioObjectID id = kAudioObjectUnknown;
  std::string uid;
  std::string name;
  friend bool operator==(const OutputDevice&, const OutputDevice&) = default;
};

// Knows which applications the user muted or turned down and where each one plays, keeps a
// tap for each muted or turned-down one that is running (playing back on its output), sends the
// others' streams to their output, saves the choices, and counts muting for the statistics.
// Main thread only.
class MuteController : public std::enable_shared_from_this<MuteController> {
 public:
  // At or above this volume an application is at full volume: no entry, no tap.
  static constexpr float kFullVolumeThreshold = 0.995f;

  // Loads the preferences, removes aggregate devices an earlier run left behind, and follows
  // the default output device.
  static std::shared_ptr<MuteController> create(MainQueue& queue, AudioHardware& hardware,
                                                DefaultsStore& defaults, const WallClock& clock,
                                                std::shared_ptr<LogSink> logs);
  // Takes every tap down: each application plays on its own device again before the program
  // goes. Needs the audio hardware it was given still there.
  ~MuteController();
  MuteController(const MuteController&) = delete;
  MuteController& operator=(const MuteController&) = delete;

  const Observable<std::set<std::string>>& mutedKeys() const { return mutedKeys_; }
  const Observable<std::map<std::string, float>>& volumes() const { return volumes_; }
  const Observable<std::int64_t>& statsMuteCount() const { return statsMuteCount_; }
  double statsTotalMutedSeconds() const;
  int activeMuteCount() const;

  void reconcile(const std::vector<AudioApp>& apps);
  void toggle(const AudioApp& app);
  void setVolume(float volume, const AudioApp& app);
  void muteAll();
  void unmuteAll();

  // The output devices there are, and the one each application was sent to by its key (none:
  // it follows the default output). A chosen device that is away stays chosen: the
  // application plays on the default output until it is back.
  const Observable<std::vector<OutputDevice>>& outputDevices() const { return outputDevices_; }
  const Observable<std::map<std::string, std::string>>& outputChoices() const {
    return outputChoices_;
  }
  // An empty UID: back to following the default output.
  void setOutputDevice(const std::string& deviceUID, const AudioApp& app);

  // Mutes every other running application and unmutes this one. Used again for the same
  // application, it puts back the mutes it changed; later choices of the user stay.
  void hearOnly(const AudioApp& app);
  // The application heard alone, until its mutes are put back or all are muted or unmuted.
  const Observable<std::optional<std::string>>& hearOnlyKey() const { return hearOnlyKey_; }

  // What a test or a view may know about a key's tap.
  bool hasTap(const std::string& key) const { return taps_.count(key) > 0; }
  float tapGain(const std::string& key) const;
  std::size_t tapCount() const { return taps_.size(); }
  double statsMutedSeconds() const { return statsMutedSeconds_.get(); }

 private:
  MuteController(AudioHardware& hardware, DefaultsStore& defaults, const WallClock& clock,
                 std::shared_ptr<LogSink> logs);
  void load();
  void persist();
  void accumulateMuteTime(const std::string& key);
  bool needsTap(const std::string& key) const;
  float effectiveGain(const std::string& key) const;
  void rebuildAllTaps();
  void forgetTap(const std::string& key);
  void refreshOutputDevices();
  // The chosen device's UID while it is there; empty for the default output.
  std::string effectiveOutputUID(const std::string& key) const;
  void sendStreamsToOutputs(const std::vector<AudioApp>& apps);
  void persistOutputChoices();

  AudioHardware& hardware_;
  DefaultsStore& defaults_;
  const WallClock& clock_;
  Observable<std::set<std::string>> mutedKeys_;
  Observable<std::map<std::string, float>> volumes_;
  std::map<std::string, std::unique_ptr<ProcessMuteTap>> taps_;
  // The keys of taps_, for those who watch which applications are being silenced.
  Observable<std::set<std::string>> tappedKeys_;
  std::map<std::string, std::vector<AudioObjectID>> tappedObjectIDs_;
  std::vector<AudioApp> lastApps_;
  Observable<std::int64_t> statsMuteCount_{0};
  Observable<double> statsMutedSeconds_{0.0};
  Observable<std::map<std::string, WallClock::TimePoint>> muteStartDates_;
  Observable<std::vector<OutputDevice>> outputDevices_;
  Observable<std::map<std::string, std::string>> outputChoices_;
  // Stored choices that could not be read, written back as they were.
  nlohmann::json unreadableOutputChoices_ = nlohmann::json::object();
  // The output UID each process object was last sent to.
  std::map<AudioObjectID, std::string> sentOutputs_;
  struct HearOnly {
    std::string key;
    std::set<std::string> mutedByIt;
    bool unmutedIt = false;  // the application heard alone was muted before
  };
  std::optional<HearOnly> hearOnly_;
  Observable<std::optional<std::string>> hearOnlyKey_;
  AudioObjectPropertyListenerBlock deviceListener_;
  AudioObjectPropertyListenerBlock deviceListListener_;
  AudioObjectPropertyAddress defaultOutputAddress_{kAudioHardwarePropertyDefaultOutputDevice,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain};
  AudioObjectPropertyAddress deviceListAddress_{kAudioHardwarePropertyDevices,
                                                kAudioObjectPropertyScopeGlobal,
                                                kAudioObjectPropertyElementMain};
  Logger logger_;
};

}  // namespace quellix
