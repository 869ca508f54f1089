#include "ui/OnboardingView.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QPushButton>
#include <QTest>

#include "ui/PageDots.h"
#include "ui/PanelTestSupport.h"
#include "ui/PlainButton.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class OnboardingViewTest : public testing::ViewTest {
 protected:
  // The players out of reach, so the media page asks.
  void SetUp() override {
    ViewTest::SetUp();
    mediaPlayers.reason = "no session bus";
  }
  std::unique_ptr<OnboardingView> open() {
    AppState& app = state ? *state : start();
    auto view = std::make_unique<OnboardingView>(app, [this] { ++closes; });
    view->show();
    settle();
    return view;
  }
  int closes = 0;
};

TEST_F(OnboardingViewTest, ForwardAndBackWalkThePagesAndReturnFinishesOnTheLast) {
  auto view = open();
  const int last = OnboardingView::kStepCount - 1;
  const QString next = view->forwardButton().text();
  for (int step = 0; step <= last; ++step) {
    SCOPED_TRACE(step);
    ASSERT_EQ(view->step(), step);
    EXPECT_EQ(view->backButton().isVisible(), step > 0);
    EXPECT_EQ(view->forwardButton().text() != next, step == last) << "the last one finishes";
    EXPECT_TRUE(view->currentPage().isVisible());
    for (int dot = 0; dot <= last; ++dot) {
      EXPECT_EQ(view->dots().dotOpacity(dot) == 1.0, dot == step) << dot;
    }
    if (step < last) {
      QTest::mouseClick(&view->forwardButton(), Qt::LeftButton);
      EXPECT_TRUE(view->isTransitioning());
    }
  }
  QTest::mouseClick(&view->backButton(), Qt::LeftButton);
  EXPECT_EQ(view->step(), last - 1);
  QTest::mouseClick(&view->forwardButton(), Qt::LeftButton);
  EXPECT_EQ(closes, 0);
  QTest::keyClick(view.get(), Qt::Key_Return);
  EXPECT_EQ(closes, 1);
  EXPECT_EQ(view->step(), last) << "finishing does not move on";
  QTest::keyClick(view.get(), Qt::Key_Enter);
  EXPECT_EQ(closes, 2);
}

TEST_F(OnboardingViewTest, ANewPageComesInFromTheTrailingEdgeWhicheverWayTheUserMoves) {
  auto view = open();
  view->forward();
  view->forward();
  ui::testing::advanceAnimations(*view, OnboardingView::kTransitionMilliseconds);
  view->back();
  ui::testing::advanceAnimations(*view, OnboardingView::kTransitionMilliseconds / 4);
  EXPECT_GT(view->page(1).x(), 0) << "page 1 enters from the right";
  EXPECT_LT(view->page(2).x(), 0) << "page 2 leaves to the left";
  ui::testing::advanceAnimations(*view, OnboardingView::kTransitionMilliseconds);
  EXPECT_EQ(view->page(1).x(), 0);
  EXPECT_FALSE(view->page(2).isVisible());
}

// A click says why in the log and polls for a while: players reachable within the poll show
// within a second, after it they need another click.
TEST_F(OnboardingViewTest, PermissionPollSwitchesToGrantedOnlyWhileItRuns) {
  auto view = open();
  EXPECT_FALSE(view->permissionGranted().isVisibleTo(&view->page(2)));
  QTest::mouseClick(&view->permissionButton(), Qt::LeftButton);
  EXPECT_EQ(logs->messages("MediaKeys"),
            std::vector<std::string>{"The media keys cannot reach any player: no session bus"});
  queue.advance(seconds(40));
  mediaPlayers.reason.reset();
  queue.advance(seconds(5));
  EXPECT_FALSE(view->mediaPermissionGranted()) << "the poll has ended";

  mediaPlayers.reason = "no session bus";
  QTest::mouseClick(&view->permissionButton(), Qt::LeftButton);
  queue.advance(seconds(4) + milliseconds(500));
  EXPECT_FALSE(view->mediaPermissionGranted());
  mediaPlayers.reason.reset();  // reachable 4.5 s after the second click
  queue.advance(milliseconds(500));
  EXPECT_TRUE(view->mediaPermissionGranted());
  EXPECT_TRUE(view->permissionGranted().isVisibleTo(&view->page(2)));
  EXPECT_FALSE(view->permissionRequest().isVisibleTo(&view->page(2)));
}

TEST_F(OnboardingViewTest, LaunchSwitchIsTheLaunchAtLoginSetting) {
  auto view = open();
  EXPECT_FALSE(view->launchSwitch().isChecked());
  state->setLaunchAtLogin(true);
  settle();
  EXPECT_TRUE(view->launchSwitch().isChecked());
  loginItem->fails = true;
  loginItem->statusAfterFailure = LoginItemStatus::enabled;
  QTest::mouseClick(&view->launchSwitch(), Qt::LeftButton, {},
                    QPoint(4, view->launchSwitch().height() / 2));
  EXPECT_TRUE(view->launchSwitch().isChecked()) << "shows what the system reports";
}

TEST_F(OnboardingViewTest, RendersEveryPageWithNoTextCut) {
  for (const bool granted : {false, true}) {
    mediaPlayers.reason = granted ? std::nullopt : std::optional<std::string>("no session bus");
    auto view = open();
    EXPECT_EQ(view->mediaPermissionGranted(), granted) << "players in reach need no click";
    EXPECT_EQ(view->permissionGranted().isVisibleTo(&view->page(2)), granted);
    for (int step = 0; step < OnboardingView::kStepCount; ++step) {
      ui::testing::advanceAnimations(*view, OnboardingView::kTransitionMilliseconds);
      if (step != 2 && granted) {
        view->forward();
        continue;
      }
      ui::testing::saveRenders(*view,
                               QStringLiteral("onboarding-%1%2")
                                   .arg(step)
                                   .arg(step == 2 ? (granted ? "-granted" : "-not-granted") : ""));
      // The views' widgets carry no meta-object of their own: ask C++, not Qt, what they are.
      for (QWidget* child : view->currentPage().findChildren<QWidget*>()) {
        if (auto* label = dynamic_cast<TextLabel*>(child); label && label->isParagraph()) {
          EXPECT_GE(label->height(), label->heightForWidth(label->width())) << step;
        }
      }
      EXPECT_LE(view->currentPage().geometry().bottom(), view->dots().geometry().top()) << step;
      if (step < OnboardingView::kStepCount - 1) {
        view->forward();
      }
    }
  }
}

}  // namespace
}  // namespace quellix::ui
