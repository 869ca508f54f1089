#include "state/AppState.h"

#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kOnboardingCompletedKey = "onboardingCompleted";
constexpr const char* kOnboardingWindow = "onboarding";
constexpr const char* kAboutWindow = "about";

bool isEnabled(const LoginItem& item) {
  return item.status() == LoginItemStatus::enabled;
}

}  // namespace

std::shared_ptr<AppState> AppState::create(AppEnvironment environment) {
  std::shared_ptr<AppState> state(new AppState(std::move(environment)));
  state->startUp();
  return state;
}

AppState::AppState(AppEnvironment environment)
    : environment_(std::move(environment)), logger_(environment_.logs, "AppState") {}

void AppState::startUp() {
  MainQueue& queue = environment_.queue;
  AudioHardware& audio = environment_.audio;
  const auto& logs = environment_.logs;
  monitor_ = AudioProcessMonitor::create(queue, audio, environment_.workspace, logs);
  muter_ = MuteController::create(queue, audio, environment_.defaults, environment_.clock, logs);
  systemVolume_ = SystemVolumeController::create(queue, audio, logs);
  updates_ = UpdateChecker::create(queue, environment_.defaults, environment_.http, logs);
  launchAtLogin_.set(isEnabled(*environment_.loginItem));
  windows_ = std::make_unique<WindowCoordinator>();
  control_ = std::make_unique<AppControl>(
      queue, *monitor_, *muter_, *systemVolume_,
      [workspace = environment_.workspace](pid_t pid) { return workspace->processName(pid); },
      [workspace = environment_.workspace](pid_t pid) { return workspace->parentPID(pid); });

  // Set before the monitor starts, so its very first list already reaches the controller.
  monitor_->setOnChange([weakState = weak_from_this()](const std::vector<AudioApp>& apps) {
    if (auto state = weakState.lock()) {
      state->muter_->reconcile(apps);
    }
  });
  monitor_->start();
  updates_->start();

  const bool moved = environment_.offerMoveIfNeeded && environment_.offerMoveIfNeeded();
  if (moved || environment_.defaults.boolean(kOnboardingCompletedKey)) {
    return;
  }
  queue.afterWeak(kOnboardingDelay, shared_from_this(),
                  [](AppState& state) { state.showOnboarding(); });
}

void AppState::setLaunchAtLogin(bool enabled) {
  LoginItem& item = *environment_.loginItem;
  try {
    if (enabled) {
      item.registerItem();
    } else {
      item.unregisterItem();
    }
  } catch (const std::exception& error) {
    logger_.error(std::string("Launch-at-Login ") + (enabled ? "register" : "unregister") +
                  " fehlgeschlagen: " + errorDescription(error));
  }
  // The box shows what the system reports after the attempt, not what was clicked.
  launchAtLogin_.set(isEnabled(item));
}

bool AppState::hearOnly(const std::string& appKey) {
  for (const auto& app : monitor_->apps().get()) {
    if (app.key() == appKey) {
      muter_->hearOnly(app);
      return true;
    }
  }
  return false;
}

void AppState::showOnboarding() {
  windows_->show(kOnboardingWindow, [this] {
    auto completion = [weakState = weak_from_this(), &defaults = environment_.defaults] {
      defaults.set(kOnboardingCompletedKey, true);
      if (auto state = weakState.lock()) {
        state->windows_->remove(kOnboardingWindow);
      }
    };
    return environment_.makeOnboarding(*this, std::move(completion));
  });
}

void AppState::showAbout() {
  windows_->show(kAboutWindow, [this] { return environment_.makeAbout(*this); });
}

}  // namespace quellix
