#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "audio/AudioHardware.h"
#include "desktop/apps/Workspace.h"
#include "support/Logger.h"
#include "support/MainQueue.h"
#include "support/Observable.h"

namespace quellix {

// What the UI shows as an application's icon: a theme icon name, or a symbol.
struct AppIcon {
  std::string themeName;
  std::string symbol;
  friend bool operator==(const AppIcon&, const AppIcon&) = default;
};

// One application using audio, with the process objects attributed to it.
struct AudioApp {
  pid_t id = 0;  // the owning application's PID
  std::string name;
  std::optional<std::string> bundleID;
  AppIcon icon;
  std::vector<AudioObjectID> processObjectIDs;  // ascending
  bool isPlaying = false;

  // The bundle identifier, else "pid:" and the PID; what choices are kept under.
  std::string key() const;

  // The icon takes no part.
  friend bool operator==(const AudioApp& a, const AudioApp& b) {
    return a.id == b.id && a.name == b.name && a.bundleID == b.bundleID &&
           a.processObjectIDs == b.processObjectIDs && a.isPlaying == b.isPlaying;
  }
};

// The running applications of one refresh, looked up as needed.
class RunningApplications {
 public:
  explicit RunningApplications(Workspace& workspace) : workspace_(&workspace) {}
  explicit RunningApplications(std::map<pid_t, RunningApplication> fixed)
      : fixed_(std::move(fixed)) {}

  const RunningApplication* find(pid_t pid);

 private:
  Workspace* workspace_ = nullptr;
  std::map<pid_t, RunningApplication> fixed_;
  std::unordered_map<pid_t, std::optional<RunningApplication>> looked_;
};

// Turns the audio system's process objects into the sorted list of applications using audio,
// grouped by owning application, and follows it through listeners and a 10-second refresh.
// Quellix's own streams (its taps' playback), the sound server's and other volume controls'
// are no applications and never listed.
class AudioProcessMonitor : public std::enable_shared_from_this<AudioProcessMonitor> {
 public:
  static constexpr Duration kRefreshInterval = std::chrono::seconds(10);

  static std::shared_ptr<AudioProcessMonitor> create(MainQueue& queue, AudioHardware& hardware,
                                                     std::shared_ptr<Workspace> workspace,
                                                     std::shared_ptr<LogSink> logs);

  const Observable<std::vector<AudioApp>>& apps() const { return apps_; }
  void setOnChange(std::function<void(const std::vector<AudioApp>&)> onChange) {
    onChange_ = std::move(onChange);
  }

  void start();
  void refresh();

  std::optional<RunningApplication> resolveOwningApp(pid_t pid, RunningApplications& runningByPID);
  std::optional<std::string> processName(pid_t pid);

 private:
  AudioProcessMonitor(MainQueue& queue, AudioHardware& hardware,
                      std::shared_ptr<Workspace> workspace, std::shared_ptr<LogSink> logs);
  AudioObjectPropertyListenerBlock makeRefreshListener();
  void syncListeners(const std::vector<AudioObjectID>& processObjectIDs);
  void addListeners(AudioObjectID object);

  MainQueue& queue_;
  AudioHardware& hardware_;
  std::shared_ptr<Workspace> workspace_;
  Observable<std::vector<AudioApp>> apps_;
  std::function<void(const std::vector<AudioApp>&)> onChange_;
  Logger logger_;
  AudioObjectPropertyAddress listAddress_{kAudioHardwarePropertyProcessObjectList,
                                          kAudioObjectPropertyScopeGlobal,
                                          kAudioObjectPropertyElementMain};
  AudioObjectPropertyListenerBlock listListener_;
  std::map<AudioObjectID,
           std::vector<std::pair<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>>>
      processListeners_;
  TaskHandle periodicRefresh_;
};

}  // namespace quellix
