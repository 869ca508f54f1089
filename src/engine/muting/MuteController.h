#pragma once

#include <cstdint>
#include <map>
#include <memory>
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

// Knows which applications the user muted or turned down, keeps a tap for each of them that
// is running, saves the choices, and counts muting for the statistics. Main thread only.
class MuteController : public std::enable_shared_from_this<MuteController> {
 public:
  // At or above this volume an application is at full volume: no entry, no tap.
  static constexpr float kFullVolumeThreshold = 0.995f;

  // Loads the preferences, removes aggregate devices an earlier run left behind, and follows
  // the default output device.
  static std::shared_ptr<MuteController> create(MainQueue& queue, DefaultsStore& defaults,
                                                const WallClock& clock);
  // Takes every tap down: each application plays on its own device again before the program
  // goes. Needs the audio backend still installed.
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

  // What a test or a view may know about a key's tap.
  bool hasTap(const std::string& key) const { return taps_.count(key) > 0; }
  float tapGain(const std::string& key) const;
  std::size_t tapCount() const { return taps_.size(); }
  double statsMutedSeconds() const { return statsMutedSeconds_.get(); }

 private:
  MuteController(DefaultsStore& defaults, const WallClock& clock);
  void load();
  void persist();
  void accumulateMuteTime(const std::string& key);
  bool needsTap(const std::string& key) const;
  float effectiveGain(const std::string& key) const;
  void rebuildAllTaps();
  void forgetTap(const std::string& key);

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
  AudioObjectPropertyListenerBlock deviceListener_;
  AudioObjectPropertyAddress defaultOutputAddress_{kAudioHardwarePropertyDefaultOutputDevice,
                                                   kAudioObjectPropertyScopeGlobal,
                                                   kAudioObjectPropertyElementMain};
  Logger logger_{"MuteController"};
};

}  // namespace quellix
