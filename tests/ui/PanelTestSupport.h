#pragma once

#include <QApplication>
#include <memory>
#include <vector>

#include "harness/AppStateFixture.h"

namespace quellix::ui::testing {

// The running application on the simulated audio system, with the onboarding done.
class ViewTest : public quellix::testing::AppStateTest {
 protected:
  void SetUp() override {
    AppStateTest::SetUp();
    defaults->set("onboardingCompleted", true);
  }

  // Lets the state's queue and Qt's events run until both are idle.
  void settle() {
    for (int round = 0; round < 3; ++round) {
      queue.drain();
      QApplication::processEvents();
    }
  }
};

}  // namespace quellix::ui::testing
