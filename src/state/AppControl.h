#pragma once

#include <sys/types.h>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/MuteController.h"
#include "engine/volume/SystemVolumeController.h"
#include "support/MainQueue.h"
#include "support/Observable.h"
#include "support/TextError.h"

namespace quellix {

// One application as its row shows it, for those who drive Quellix from outside.
struct AppListing {
  std::string name;
  std::string id;  // the desktop id, else "pid:" and the PID
  bool muted = false;
  int volume = 100;  // percent

  friend bool operator==(const AppListing&, const AppListing&) = default;
};

// The panel's actions by name instead of by click: what scripts and shortcuts ask for. An
// application is named as the rows show it: its display name, its desktop id, or its
// executable, in any case. Main thread only.
class AppControl {
 public:
  static constexpr int kMaxPercent = 100;

  class Error : public TextError {
   public:
    enum class Kind { unknownApp, ambiguousApp, volumeOutOfRange };
    Error(Kind kind, std::string subject, std::vector<std::string> candidates = {});
    Kind kind() const { return kind_; }
    const std::string& subject() const { return subject_; }
    // The names an ambiguous query fits.
    const std::vector<std::string>& candidates() const { return candidates_; }

   private:
    Kind kind_;
    std::string subject_;
    std::vector<std::string> candidates_;
  };

  using ProcessName = std::function<std::optional<std::string>(pid_t)>;
  using ParentPID = std::function<std::optional<pid_t>(pid_t)>;

  AppControl(MainQueue& queue, AudioProcessMonitor& monitor, MuteController& muter,
             SystemVolumeController& systemVolume, ProcessName processName,
             ParentPID parentPID = {});
  AppControl(const AppControl&) = delete;
  AppControl& operator=(const AppControl&) = delete;

  std::vector<AppListing> apps() const;
  // The one running application `query` names; throws Error otherwise.
  AudioApp find(const std::string& query) const;

  // Each throws Error, changing nothing, on an unknown or ambiguous name or a bad volume.
  AppListing mute(const std::string& query);
  AppListing unmute(const std::string& query);
  AppListing toggle(const std::string& query);
  // Mutes every other application, or puts their mutes back when it is heard alone already.
  AppListing hearOnly(const std::string& query);
  AppListing setVolume(const std::string& query, double percent);
  // Toggles the application `pid` belongs to: its own row, or the row of the nearest
  // ancestor that has one (a browser's sound comes from a child). None when it has no row.
  std::optional<AppListing> toggleProcess(pid_t pid);
  void setMasterVolume(double percent);
  void setMasterMuted(bool muted);
  int masterVolume() const;
  bool masterMuted() const;

  // Told once per completed change of an application's mute or volume, and of the master's.
  void onAppChanged(std::function<void(const AppListing&)> changed);
  void onMasterChanged(std::function<void(int volume, bool muted)> changed);

 private:
  AppListing listing(const AudioApp& app) const;
  AppListing setMuted(const std::string& query, bool muted);
  void watchApps();
  void watchMaster();

  MainQueue& queue_;
  AudioProcessMonitor& monitor_;
  MuteController& muter_;
  SystemVolumeController& systemVolume_;
  ProcessName processName_;
  ParentPID parentPID_;
  std::function<void(const AppListing&)> appChanged_;
  std::function<void(int, bool)> masterChanged_;
  std::vector<AppListing> lastApps_;
  std::pair<int, bool> lastMaster_{-1, false};
  bool watchingApps_ = false;
  bool watchingMaster_ = false;
  std::vector<Subscription> subscriptions_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace quellix
