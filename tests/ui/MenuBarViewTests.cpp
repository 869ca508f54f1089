#include "ui/MenuBarView.h"

#include <gtest/gtest.h>

#include <QAccessible>
#include <QCheckBox>
#include <QMenu>
#include <QShortcut>
#include <QTest>
#include <algorithm>
#include <cctype>
#include <functional>
#include <string>

#include "ui/AppRowView.h"
#include "ui/PanelTestSupport.h"
#include "ui/PlainButton.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"
#include "ui/ViewRules.h"
#include "ui/VolumeSlider.h"

namespace quellix::ui {
namespace {

class PanelTest : public testing::ViewTest {
 protected:
  AppState& startWithApps(int count) {
    for (int index = 0; index < count; ++index) {
      addPlayingApp(1000 + index, "org.example.App" + std::to_string(index + 1),
                    "App " + std::to_string(index + 1));
    }
    AppState& app = start();
    panel = std::make_unique<MenuBarView>(app);
    panel->show();
    settle();
    return app;
  }

  void TearDown() override {
    panel.reset();
    ViewTest::TearDown();
  }

  std::unique_ptr<MenuBarView> panel;
};

struct PanelCase {
  const char* name;
  int apps;
  int mutedIndex = -1;
  bool masterMuted = false;
  double masterVolume = 1.0;
  bool fixedVolumeOutput = false;
  bool update = false;
};

void PrintTo(const PanelCase& c, std::ostream* out) {
  *out << c.name;
}

class PanelStateTest : public PanelTest, public ::testing::WithParamInterface<PanelCase> {};

// Each state of the services, shown as the view rules say; the renders are for a person.
TEST_P(PanelStateTest, ShowsWhatTheServicesSayAndTakesNoRoomForEmptySections) {
  const PanelCase& c = GetParam();
  if (c.fixedVolumeOutput) {
    sim->setDefaultOutputDevice(sim->addDevice({.uid = "hdmi", .hasVolume = false}));
  }
  AppState& app = startWithApps(c.apps);
  if (c.mutedIndex >= 0) {
    app.muter().toggle(app.monitor().apps().get().at(c.mutedIndex));
  }
  if (c.masterMuted) {
    app.systemVolume().setMuted(true);
  }
  if (c.masterVolume != 1.0) {
    app.systemVolume().setVolume(c.masterVolume);
  }
  if (c.update) {
    http->answer({.body = R"({"version":"1.4.2"})"});
  }
  settle();

  const int muted = c.mutedIndex >= 0 ? 1 : 0;
  EXPECT_EQ(panel->subtitleLabel().text(), ViewRules::subtitle(c.apps, muted));
  EXPECT_EQ(panel->volumeSection().isVisible(), !c.fixedVolumeOutput);
  if (!c.fixedVolumeOutput) {
    EXPECT_EQ(panel->masterMuteSymbol().symbolName(),
              ViewRules::volumeIcon(c.masterMuted, c.masterVolume));
  }
  EXPECT_EQ(panel->rows().size(), static_cast<std::size_t>(c.apps));
  EXPECT_EQ(panel->emptyText().isVisible(), c.apps == 0);
  const auto massAction = ViewRules::massAction(muted, c.apps > 0);
  EXPECT_EQ(panel->massActionButton().isVisible(), massAction != ViewRules::MassAction::none);
  EXPECT_EQ(panel->massActionText().text(), ViewRules::massActionText(massAction));
  EXPECT_EQ(panel->updateSection().isVisible(), c.update);
  EXPECT_EQ(panel->height(), panel->layout()->sizeHint().height());
  // The media buttons follow the header directly when there is no master row.
  const int mediaTop = panel->mediaControls().mapTo(panel.get(), QPoint(0, 0)).y();
  const QWidget& header = panel->subtitleLabel();
  EXPECT_EQ(mediaTop == header.mapTo(panel.get(), QPoint(0, header.height() + 8)).y(),
            c.fixedVolumeOutput);
  testing::saveRenders(*panel, QStringLiteral("panel-%1").arg(QString::fromLatin1(c.name)));
}

INSTANTIATE_TEST_SUITE_P(
    Panel, PanelStateTest,
    ::testing::Values(PanelCase{.name = "nothing-playing", .apps = 0},
                      PanelCase{.name = "one-app", .apps = 1},
                      PanelCase{.name = "three-apps-one-muted", .apps = 3, .mutedIndex = 1},
                      PanelCase{.name = "master-muted", .apps = 1, .masterMuted = true},
                      PanelCase{.name = "master-at-0.3", .apps = 0, .masterVolume = 0.3},
                      PanelCase{
                          .name = "fixed-volume-output", .apps = 1, .fixedVolumeOutput = true},
                      PanelCase{.name = "update-notice", .apps = 1, .update = true},
                      PanelCase{.name = "twenty-apps", .apps = 20}),
    [](const auto& param) {
      std::string name = param.param.name;
      std::replace_if(
          name.begin(), name.end(), [](char each) { return !std::isalnum(each); }, '_');
      return name;
    });

TEST_F(PanelTest, ChangesAreCoalescedIntoOneRender) {
  AppState& app = startWithApps(3);
  const int before = panel->renderCount();
  const std::vector<AppRowView*> rows = panel->rows();
  app.muter().muteAll();
  app.systemVolume().setVolume(0.2);
  app.systemVolume().setMuted(true);
  settle();
  EXPECT_EQ(panel->renderCount(), before + 1);
  EXPECT_EQ(panel->masterMuteSymbol().symbolName(), ViewRules::volumeIcon(true, 0.2));
  EXPECT_EQ(panel->listChangeCount(), 0) << "nothing joined, left or moved";
  EXPECT_EQ(panel->rows(), rows) << "rows are kept, not rebuilt";
  for (AppRowView* row : rows) {
    EXPECT_TRUE(row->isMuted());
  }
}

TEST_F(PanelTest, DraggingASliderSetsItsVolumeOnEveryStepWithoutTheRenderFightingIt) {
  AppState& app = startWithApps(1);
  const std::string key = panel->rows().at(0)->app().key();
  const auto appVolume = [&] {
    const auto& volumes = app.muter().volumes().get();
    return volumes.count(key) ? volumes.at(key) : 1.0;
  };
  const auto masterVolume = [&] { return app.systemVolume().volume().get(); };
  struct Case {
    const char* what;
    VolumeSlider& slider;
    std::function<double()> volume;
  };
  const Case cases[] = {{"row", panel->rows().at(0)->slider(), appVolume},
                        {"master", panel->masterSlider(), masterVolume}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const int y = c.slider.height() / 2;
    const int knob = c.slider.width() - c.slider.knobDiameter() / 2 - 1;
    QTest::mousePress(&c.slider, Qt::LeftButton, {}, QPoint(knob, y));
    double last = 1.0;
    for (int step = 1; step <= 5; ++step) {
      QTest::mouseMove(&c.slider, QPoint(knob - step * 30, y));
      const double now = c.volume();
      EXPECT_LT(now, last) << step;
      last = now;
      settle();  // the render the change caused runs in the middle of the drag
      EXPECT_NEAR(c.slider.position(), now, 0.002) << step;
    }
    QTest::mouseRelease(&c.slider, Qt::LeftButton, {}, QPoint(knob - 150, y));
    settle();
    EXPECT_DOUBLE_EQ(c.slider.opacity(), 1.0);
  }
  EXPECT_TRUE(app.muter().hasTap(key)) << "a turned-down application is tapped";
  EXPECT_NEAR(app.muter().tapGain(key), appVolume(), 1e-6);
  EXPECT_NEAR(sim->device(output)->volume, masterVolume(), 0.001);
  EXPECT_EQ(panel->masterMuteSymbol().symbolName(), ViewRules::volumeIcon(false, masterVolume()));
}

TEST_F(PanelTest, LaunchCheckboxSpringsBackWhenRegistrationFails) {
  AppState& app = startWithApps(0);
  loginItem->fails = true;
  QTest::mouseClick(&panel->launchCheckbox(), Qt::LeftButton);
  EXPECT_EQ(loginItem->calls, std::vector<std::string>{"register"});
  EXPECT_FALSE(panel->launchCheckbox().isChecked());
  settle();
  EXPECT_FALSE(panel->launchCheckbox().isChecked());

  loginItem->fails = false;
  QTest::mouseClick(&panel->launchCheckbox(), Qt::LeftButton);
  EXPECT_TRUE(app.launchAtLogin().get());
  EXPECT_TRUE(panel->launchCheckbox().isChecked());
}

TEST_F(PanelTest, EveryButtonCallsItsAction) {
  AppState& app = startWithApps(1);
  http->answer({.body = R"({"version":"1.4.2"})"});
  settle();
  // The corner of a media button's frame reacts as well as the symbol.
  for (std::size_t index = 0; index < 3; ++index) {
    QTest::mouseClick(&panel->mediaButton(index), Qt::LeftButton, {}, QPoint(1, 1));
  }
  EXPECT_EQ(mediaPlayers.sent,
            (std::vector<MediaKey>{MediaKey::previous, MediaKey::playPause, MediaKey::next}));

  QTest::mouseClick(&panel->masterMuteButton(), Qt::LeftButton);
  EXPECT_TRUE(app.systemVolume().isMuted().get());
  QTest::mouseClick(&panel->massActionButton(), Qt::LeftButton);
  EXPECT_EQ(app.muter().activeMuteCount(), 1);
  settle();
  QTest::mouseClick(&panel->massActionButton(), Qt::LeftButton);
  EXPECT_EQ(app.muter().activeMuteCount(), 0) << "the button turned into unmute all";

  std::vector<QUrl> opened;
  panel->openUrl = [&](const QUrl& url) { opened.push_back(url); };
  int quits = 0;
  panel->quit = [&] { ++quits; };
  QTest::mouseClick(&panel->updateNotice(), Qt::LeftButton, {},
                    QPoint(panel->updateNotice().width() - 2, 2));
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].toString().toStdString(), UpdateChecker::downloadPage());
  QTest::mouseClick(&panel->aboutButton(), Qt::LeftButton);
  EXPECT_EQ(aboutBuilds, 1);
  QTest::mouseClick(&panel->quitButton(), Qt::LeftButton);
  EXPECT_EQ(quits, 1);
  auto* shortcut = panel->findChild<QShortcut*>();
  ASSERT_NE(shortcut, nullptr);
  EXPECT_EQ(shortcut->key(), QKeySequence(QKeySequence::Quit));
  emit shortcut->activated();
  EXPECT_EQ(quits, 2);
}

// The menu opens from the keyboard and for an assistive technology, which is told it is there.
TEST_F(PanelTest, ARowsMenuSendsTheAppToAnOutputAndHearsItAlone) {
  sim->addDevice({.uid = "usb-headset", .name = "USB & Headset"});
  sim->addDevice({.uid = "usb-headset-2", .name = "USB & Headset"});
  AppState& app = startWithApps(2);
  AppRowView& row = *panel->rows()[0];
  QAccessibleInterface* button = QAccessible::queryAccessibleInterface(&row.rowButton());
  EXPECT_TRUE(button->state().hasPopup);
  row.rowButton().setFocus();
  QTest::keyClick(&row.rowButton(), Qt::Key_F10, Qt::ShiftModifier);
  ASSERT_NE(row.openMenu(), nullptr);
  QMenu& menu = *row.openMenu();
  testing::saveRenders(menu, QStringLiteral("row-menu"));
  QStringList texts;
  for (const QAction* action : menu.actions()) {
    texts << action->text() + (action->isChecked() ? QStringLiteral(" *") : QString());
  }
  EXPECT_EQ(texts, QStringList({"Standardausgabe *", "speakers", "USB && Headset (usb-headset)",
                                "USB && Headset (usb-headset-2)", "", "Nur diese hören"}));
  EXPECT_EQ(menu.accessibleName(), QStringLiteral("Optionen für App 1"));
  menu.actions()[2]->trigger();
  EXPECT_EQ(app.muter().outputChoices().get().at("org.example.App1"), "usb-headset");
  menu.close();
  settle();

  button->actionInterface()->doAction(QAccessibleActionInterface::showMenuAction());
  ASSERT_NE(row.openMenu(), nullptr);
  EXPECT_TRUE(row.openMenu()->actions()[2]->isChecked());
  row.openMenu()->actions().back()->trigger();
  EXPECT_EQ(app.muter().mutedKeys().get(), (std::set<std::string>{"org.example.App2"}));
}

TEST_F(PanelTest, RowsFollowTheListAndAChangedListAnimatesAndShrinksBack) {
  startWithApps(2);
  std::vector<AppRowView*> before = panel->rows();
  ASSERT_EQ(before.size(), 2u);
  const int height = panel->height();
  const int firstRowTop = before[0]->mapTo(panel.get(), QPoint(0, 0)).y();
  const AudioObjectID late = addPlayingApp(2000, "org.example.Late", "Late");
  state->monitor().refresh();
  settle();
  EXPECT_EQ(panel->listChangeCount(), 1);
  ASSERT_EQ(panel->rows().size(), 3u);
  for (AppRowView* kept : before) {
    EXPECT_NE(std::find(panel->rows().begin(), panel->rows().end(), kept), panel->rows().end());
  }
  ui::testing::advanceAnimations(*panel, MenuBarView::kListAnimationMilliseconds);
  EXPECT_EQ(panel->height(), height + panel->rows().at(0)->height() + 1);

  sim->removeProcess(late);
  state->monitor().refresh();
  for (const char* moment : {"after the row left", "after closing and reopening"}) {
    settle();
    ui::testing::advanceAnimations(*panel, MenuBarView::kListAnimationMilliseconds);
    EXPECT_EQ(panel->height(), height) << moment;
    EXPECT_EQ(before[0]->mapTo(panel.get(), QPoint(0, 0)).y(), firstRowTop) << moment;
    panel->hide();
    panel->show();
  }
}

}  // namespace
}  // namespace quellix::ui
