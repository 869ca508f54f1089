#pragma once

#include <QApplication>
#include <memory>
#include <vector>

#include "desktop/mpris/Accessibility.h"
#include "desktop/mpris/EventPoster.h"
#include "harness/AppStateFixture.h"

namespace quellix::ui::testing {

// Keeps the key events the media buttons post.
class RecordingPoster final : public EventPoster {
 public:
  void post(CGEventTapLocation, const CGEvent& event) override { posted.push_back(event); }
  // The key of each key-down event.
  std::vector<int> keyDowns() const {
    std::vector<int> keys;
    for (const CGEvent& event : posted) {
      if (((event.data1 >> 8) & 0xFF) == 0x0A) {
        keys.push_back(static_cast<int>(event.data1 >> 16));
      }
    }
    return keys;
  }
  std::vector<CGEvent> posted;
};

// Trust in posting key events, as the test decides.
class FakeTrust final : public AccessibilityTrust {
 public:
  bool isTrusted() override { return trusted; }
  void prompt() override { ++prompts; }
  bool trusted = false;
  int prompts = 0;
};

// The running application on the simulated audio system, with the desktop's media keys and
// accessibility trust replaced.
class ViewTest : public quellix::testing::AppStateTest {
 protected:
  void SetUp() override {
    AppStateTest::SetUp();
    defaults->set("onboardingCompleted", true);
    previousPoster_ = installEventPoster(poster);
    previousTrust_ = installAccessibilityTrust(trust);
  }
  void TearDown() override {
    installEventPoster(previousPoster_);
    installAccessibilityTrust(previousTrust_);
    AppStateTest::TearDown();
  }

  // Lets the state's queue and Qt's events run until both are idle.
  void settle() {
    for (int round = 0; round < 3; ++round) {
      queue.drain();
      QApplication::processEvents();
    }
  }

  std::shared_ptr<RecordingPoster> poster = std::make_shared<RecordingPoster>();
  std::shared_ptr<FakeTrust> trust = std::make_shared<FakeTrust>();

 private:
  std::shared_ptr<EventPoster> previousPoster_;
  std::shared_ptr<AccessibilityTrust> previousTrust_;
};

}  // namespace quellix::ui::testing
