#pragma once

#include <functional>
#include <memory>
#include <string>

#include "desktop/login/LoginItem.h"
#include "desktop/mpris/MediaPlayers.h"
#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/MuteController.h"
#include "engine/volume/SystemVolumeController.h"
#include "state/AppControl.h"
#include "state/UpdateChecker.h"
#include "state/WindowCoordinator.h"
#include "support/DefaultsStore.h"
#include "support/Logger.h"
#include "support/MainQueue.h"
#include "support/Observable.h"
#include "support/WallClock.h"

namespace quellix {

class AppState;

// What the running application is made of. The scene fills it in; tests swap the parts that
// reach outside the process.
struct AppEnvironment {
  MainQueue& queue;
  AudioHardware& audio;
  DefaultsStore& defaults;
  const WallClock& clock;
  std::shared_ptr<LogSink> logs;
  MediaPlayers& mediaPlayers;
  std::shared_ptr<Workspace> workspace;
  std::shared_ptr<LoginItem> loginItem;
  std::shared_ptr<HttpClient> http;
  std::function<bool()> offerMoveIfNeeded;
  // The views sit above this layer: the composition root says how to build the windows.
  std::function<std::unique_ptr<AuxiliaryWindow>(AppState& state, std::function<void()> close)>
      makeOnboarding;
  std::function<std::unique_ptr<AuxiliaryWindow>(AppState& state)> makeAbout;
};

// The running application: owns every service, starts them in a fixed order, decides about
// the onboarding, and manages launch at login. Main thread only.
class AppState : public std::enable_shared_from_this<AppState> {
 public:
  static constexpr Duration kOnboardingDelay = std::chrono::milliseconds(400);

  // Runs the whole start-up.
  static std::shared_ptr<AppState> create(AppEnvironment environment);

  AudioProcessMonitor& monitor() const { return *monitor_; }
  MuteController& muter() const { return *muter_; }
  SystemVolumeController& systemVolume() const { return *systemVolume_; }
  UpdateChecker& updates() const { return *updates_; }
  WindowCoordinator& windows() const { return *windows_; }
  AppControl& control() const { return *control_; }
  MediaPlayers& mediaPlayers() const { return environment_.mediaPlayers; }
  MainQueue& queue() const { return environment_.queue; }
  const Observable<bool>& launchAtLogin() const { return launchAtLogin_; }

  void setLaunchAtLogin(bool enabled);
  // Hears the running application with `appKey` (AudioApp::key()) alone, or, when it is heard
  // alone already, puts back the mutes that changed. False when no running application has it.
  bool hearOnly(const std::string& appKey);
  void showOnboarding();
  void showAbout();

 private:
  explicit AppState(AppEnvironment environment);
  void startUp();

  AppEnvironment environment_;
  std::shared_ptr<AudioProcessMonitor> monitor_;
  std::shared_ptr<MuteController> muter_;
  std::shared_ptr<SystemVolumeController> systemVolume_;
  std::shared_ptr<UpdateChecker> updates_;
  Observable<bool> launchAtLogin_{false};
  std::unique_ptr<WindowCoordinator> windows_;
  std::unique_ptr<AppControl> control_;
  Logger logger_;
};

}  // namespace quellix
