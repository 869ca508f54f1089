#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "harness/FakeHttpClient.h"
#include "harness/FakeSystem.h"
#include "harness/TestSupport.h"
#include "state/AppState.h"
#include "support/TextError.h"

namespace quellix::testing {

// A login item whose answers the test decides.
class FakeLoginItem final : public LoginItem {
 public:
  LoginItemStatus status() const override { return status_; }
  void registerItem() override { change("register", LoginItemStatus::enabled); }
  void unregisterItem() override { change("unregister", LoginItemStatus::notRegistered); }

  LoginItemStatus status_ = LoginItemStatus::notRegistered;
  bool fails = false;
  // What a failed or refused registration leaves behind.
  LoginItemStatus statusAfterFailure = LoginItemStatus::notRegistered;
  std::vector<std::string> calls;

 private:
  void change(const char* verb, LoginItemStatus result) {
    calls.emplace_back(verb);
    if (fails) {
      status_ = statusAfterFailure;
      throw TextError("Autostart-Ordner ist schreibgeschützt");
    }
    status_ = result;
  }
};

// Media players that keep the keys sent to them; reachable unless the test gives a reason.
class FakeMediaPlayers final : public MediaPlayers {
 public:
  explicit FakeMediaPlayers(std::shared_ptr<LogSink> logs) : MediaPlayers(std::move(logs)) {}
  void send(MediaKey key) override { sent.push_back(key); }
  std::optional<std::string> unreachableReason() const override { return reason; }

  std::vector<MediaKey> sent;
  std::optional<std::string> reason;
};

// An auxiliary window that only counts what is done to it.
class FakeWindow final : public AuxiliaryWindow {
 public:
  explicit FakeWindow(std::shared_ptr<int> open) : open_(std::move(open)) { ++*open_; }
  ~FakeWindow() override { --*open_; }
  void bringForward() override { ++timesBroughtForward; }
  int timesBroughtForward = 0;

 private:
  std::shared_ptr<int> open_;
};

// The running application on the simulated audio system with a virtual clock. Its windows are
// whatever the test's factories build, fake ones by default.
class AppStateTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    output = addDefaultOutput("speakers");
    defaults = std::make_unique<DefaultsStore>(directory.path() / "preferences.json", queue, logs);
  }

  void TearDown() override {
    // An unanswered request holds the update checker, and through it the defaults.
    http->pending.clear();
    state.reset();
    SimTest::TearDown();
  }

  AppEnvironment environment() {
    return {
        .queue = queue,
        .audio = hardware,
        .defaults = *defaults,
        .clock = clock,
        .logs = logs,
        .mediaPlayers = mediaPlayers,
        .workspace = std::make_shared<Workspace>(system.roots()),
        .loginItem = loginItem,
        .http = http,
        .offerMoveIfNeeded = [this] { return offerMove(); },
        .makeOnboarding =
            [this](AppState& appState, std::function<void()> close) {
              ++onboardingBuilds;
              onboardingClose = close;
              return makeOnboarding ? makeOnboarding(appState, std::move(close))
                                    : std::make_unique<FakeWindow>(openWindows);
            },
        .makeAbout =
            [this](AppState& appState) {
              ++aboutBuilds;
              return makeAbout ? makeAbout(appState) : std::make_unique<FakeWindow>(openWindows);
            },
    };
  }

  AppState& start() {
    state = AppState::create(environment());
    queue.drain();
    return *state;
  }

  // A running application with a desktop entry and one process object playing sound.
  AudioObjectID addPlayingApp(pid_t pid, const std::string& id, const std::string& name) {
    system.addApplication(id, name, id);
    system.addProcess({.pid = pid, .executable = id});
    return sim->addProcess({.pid = pid, .runningOutput = true, .level = 0.5f});
  }

  FakeSystem system;
  TemporaryDirectory directory;
  ManualWallClock clock;
  FakeMediaPlayers mediaPlayers{logs};
  std::unique_ptr<DefaultsStore> defaults;
  std::shared_ptr<FakeLoginItem> loginItem = std::make_shared<FakeLoginItem>();
  std::shared_ptr<FakeHttpClient> http = std::make_shared<FakeHttpClient>();
  std::function<bool()> offerMove = [] { return false; };
  std::function<std::unique_ptr<AuxiliaryWindow>(AppState&, std::function<void()>)> makeOnboarding;
  std::function<std::unique_ptr<AuxiliaryWindow>(AppState&)> makeAbout;
  // How many fake windows exist right now.
  std::shared_ptr<int> openWindows = std::make_shared<int>(0);
  int onboardingBuilds = 0;
  int aboutBuilds = 0;
  std::function<void()> onboardingClose;
  AudioObjectID output = 0;
  std::shared_ptr<AppState> state;
};

}  // namespace quellix::testing
