#include "ui/MenuBarView.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QShortcut>
#include <QTest>
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

struct PanelCase {
  const char* name;
  std::function<void(testing::ViewTest&)> arrange;         // before start
  std::function<void(testing::ViewTest&, AppState&)> act;  // after start
  const char* subtitle;
  bool volumeSection;
  const char* masterSymbol;  // when the section is shown
  const char* masterTooltip;
  std::size_t rows;
  const char* massAction;    // empty: none
  const char* updateNotice;  // empty: none
};

class PanelStateTest : public testing::ViewTest, public ::testing::WithParamInterface<PanelCase> {
 public:
  void addApps(int count) {
    for (int index = 0; index < count; ++index) {
      const std::string id = "org.example.App" + std::to_string(index + 1);
      addPlayingApp(1000 + index, id, "App " + std::to_string(index + 1));
    }
  }
  void useFixedVolumeOutput() {
    const AudioObjectID hdmi = sim->addDevice({.uid = "hdmi", .hasVolume = false});
    sim->setDefaultOutputDevice(hdmi);
  }
  void announce(const std::string& body) { http->answer({.body = body}); }
};

TEST_P(PanelStateTest, ShowsWhatTheServicesSay) {
  const PanelCase& c = GetParam();
  if (c.arrange) {
    c.arrange(*this);
  }
  AppState& app = start();
  if (c.act) {
    c.act(*this, app);
  }
  MenuBarView panel(app);
  panel.show();
  settle();

  EXPECT_EQ(panel.width(), MenuBarView::kWidth);
  EXPECT_EQ(panel.titleLabel().text(), QStringLiteral("Quellix"));
  EXPECT_EQ(panel.subtitleLabel().text(), QString::fromUtf8(c.subtitle));
  EXPECT_EQ(panel.volumeSection().isVisible(), c.volumeSection);
  if (c.volumeSection) {
    EXPECT_EQ(panel.masterMuteSymbol().symbolName(), QString::fromLatin1(c.masterSymbol));
    EXPECT_EQ(panel.masterMuteButton().toolTip(), QString::fromUtf8(c.masterTooltip));
  }
  EXPECT_EQ(panel.rows().size(), c.rows);
  EXPECT_EQ(panel.emptyText().isVisible(), c.rows == 0);
  EXPECT_EQ(panel.emptyText().text(),
            QStringLiteral("Sobald eine App Ton ausgibt,\nerscheint sie hier."));
  EXPECT_EQ(panel.massActionButton().isVisible(), std::string(c.massAction) != "");
  if (std::string(c.massAction) != "") {
    EXPECT_EQ(panel.massActionText().text(), QString::fromUtf8(c.massAction));
  }
  EXPECT_EQ(panel.updateSection().isVisible(), std::string(c.updateNotice) != "");
  if (std::string(c.updateNotice) != "") {
    EXPECT_EQ(panel.updateNoticeText().text(), QString::fromUtf8(c.updateNotice));
  }
  // Sections without content take no room: the panel is exactly as tall as what it shows.
  EXPECT_EQ(panel.height(), panel.layout()->sizeHint().height());
  // The media buttons follow the header directly when there is no master row.
  const int mediaTop = panel.mediaControls().mapTo(&panel, QPoint(0, 0)).y();
  const int headerBottom =
      panel.subtitleLabel().mapTo(&panel, QPoint(0, 0)).y() + panel.subtitleLabel().height() + 8;
  EXPECT_EQ(mediaTop == headerBottom, !c.volumeSection);

  const QString file = QStringLiteral("panel-%1").arg(QString::fromLatin1(c.name));
  ui::testing::saveRenders(panel, file);
}

const PanelCase kPanelCases[] = {
    {"nothing-playing", nullptr, nullptr, "Keine App spielt gerade Audio", true,
     "speaker.wave.3.fill", "System stummschalten", 0, "", ""},
    {"one-app", [](testing::ViewTest& t) { static_cast<PanelStateTest&>(t).addApps(1); }, nullptr,
     "1 App mit Audio", true, "speaker.wave.3.fill", "System stummschalten", 1,
     "Alle stummschalten", ""},
    {"three-apps-one-muted",
     [](testing::ViewTest& t) { static_cast<PanelStateTest&>(t).addApps(3); },
     [](testing::ViewTest&, AppState& app) {
       app.muter().toggle(app.monitor().apps().get().at(1));
     },
     "1 von 3 stummgeschaltet", true, "speaker.wave.3.fill", "System stummschalten", 3,
     "Alle wieder laut", ""},
    {"master-muted", [](testing::ViewTest& t) { static_cast<PanelStateTest&>(t).addApps(1); },
     [](testing::ViewTest&, AppState& app) { app.systemVolume().setMuted(true); },
     "1 App mit Audio", true, "speaker.slash.fill", "System-Ton wieder einschalten", 1,
     "Alle stummschalten", ""},
    {"master-at-0.3", nullptr,
     [](testing::ViewTest&, AppState& app) { app.systemVolume().setVolume(0.3); },
     "Keine App spielt gerade Audio", true, "speaker.wave.1.fill", "System stummschalten", 0, "",
     ""},
    {"fixed-volume-output",
     [](testing::ViewTest& t) {
       auto& test = static_cast<PanelStateTest&>(t);
       test.addApps(1);
       test.useFixedVolumeOutput();
     },
     nullptr, "1 App mit Audio", false, "", "", 1, "Alle stummschalten", ""},
    {"update-notice", [](testing::ViewTest& t) { static_cast<PanelStateTest&>(t).addApps(1); },
     [](testing::ViewTest& t, AppState&) {
       static_cast<PanelStateTest&>(t).announce(R"({"version":"1.4.2"})");
     },
     "1 App mit Audio", true, "speaker.wave.3.fill", "System stummschalten", 1,
     "Alle stummschalten", "Update verfügbar: Version 1.4.2"},
    {"twenty-apps", [](testing::ViewTest& t) { static_cast<PanelStateTest&>(t).addApps(20); },
     nullptr, "20 Apps mit Audio", true, "speaker.wave.3.fill", "System stummschalten", 20,
     "Alle stummschalten", ""},
};

INSTANTIATE_TEST_SUITE_P(Panel, PanelStateTest, ::testing::ValuesIn(kPanelCases),
                         [](const auto& param) {
                           std::string name = param.param.name;
                           for (char& each : name) {
                             each = std::isalnum(static_cast<unsigned char>(each)) ? each : '_';
                           }
                           return name;
                         });

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
  std::unique_ptr<MenuBarView> panel;

  void TearDown() override {
    panel.reset();
    ViewTest::TearDown();
  }
};

TEST_F(PanelTest, ARowClickTogglesThroughTheMuteControllerAndTheTapAppears) {
  AppState& app = startWithApps(2);
  AppRowView* row = panel->rows().at(0);
  const std::string key = row->app().key();
  QTest::mouseClick(&row->rowButton(), Qt::LeftButton);
  EXPECT_TRUE(app.muter().mutedKeys().get().count(key));
  EXPECT_TRUE(app.muter().hasTap(key));
  settle();
  EXPECT_TRUE(row->isMuted());
  EXPECT_EQ(panel->rows().at(0), row) << "rows are kept, not rebuilt";
  EXPECT_EQ(panel->subtitleLabel().text(), QStringLiteral("1 von 2 stummgeschaltet"));
  EXPECT_EQ(panel->massActionText().text(), QStringLiteral("Alle wieder laut"));

  QTest::mouseClick(&row->rowButton(), Qt::LeftButton);
  settle();
  EXPECT_FALSE(app.muter().hasTap(key));
  EXPECT_FALSE(row->isMuted());
  EXPECT_EQ(panel->subtitleLabel().text(), QStringLiteral("2 Apps mit Audio"));
}

TEST_F(PanelTest, ChangesAreCoalescedIntoOneRender) {
  AppState& app = startWithApps(3);
  const int before = panel->renderCount();
  app.muter().muteAll();
  app.systemVolume().setVolume(0.2);
  app.systemVolume().setMuted(true);
  settle();
  EXPECT_EQ(panel->renderCount(), before + 1);
  EXPECT_EQ(panel->masterMuteSymbol().symbolName(), QStringLiteral("speaker.slash.fill"));
  EXPECT_EQ(panel->listChangeCount(), 0) << "nothing joined, left or moved";
}

TEST_F(PanelTest, DraggingARowSliderSetsTheVolumeOnEveryStepWithoutTheRenderFightingIt) {
  AppState& app = startWithApps(1);
  AppRowView* row = panel->rows().at(0);
  const std::string key = row->app().key();
  VolumeSlider& slider = row->slider();
  const int y = slider.height() / 2;
  const int knob = slider.width() - slider.knobDiameter() / 2 - 1;
  QTest::mousePress(&slider, Qt::LeftButton, {}, QPoint(knob, y));
  float last = 1.0f;
  for (int step = 1; step <= 6; ++step) {
    QTest::mouseMove(&slider, QPoint(knob - step * 25, y));
    ASSERT_TRUE(app.muter().volumes().get().count(key)) << step;
    const float now = app.muter().volumes().get().at(key);
    EXPECT_LT(now, last) << step;
    last = now;
    settle();  // the render the change caused runs in the middle of the drag
    EXPECT_NEAR(slider.position(), now, 0.001) << step;
  }
  QTest::mouseRelease(&slider, Qt::LeftButton, {}, QPoint(knob - 150, y));
  settle();
  EXPECT_TRUE(app.muter().hasTap(key)) << "a turned-down application is tapped";
  EXPECT_NEAR(app.muter().tapGain(key), last, 1e-6);
  EXPECT_DOUBLE_EQ(slider.opacity(), 1.0);
}

TEST_F(PanelTest, DraggingTheMasterSliderSetsTheSystemVolumeOnEveryStep) {
  AppState& app = startWithApps(0);
  VolumeSlider& slider = panel->masterSlider();
  const int y = slider.height() / 2;
  const int knob = slider.width() - slider.knobDiameter() / 2 - 1;
  QTest::mousePress(&slider, Qt::LeftButton, {}, QPoint(knob, y));
  double last = 1.0;
  for (int step = 1; step <= 5; ++step) {
    QTest::mouseMove(&slider, QPoint(knob - step * 40, y));
    const double now = app.systemVolume().volume().get();
    EXPECT_LT(now, last) << step;
    EXPECT_NEAR(sim->device(output)->volume, now, 0.001) << step;
    last = now;
    settle();
    EXPECT_NEAR(slider.position(), now, 0.002) << step;
  }
  QTest::mouseRelease(&slider, Qt::LeftButton, {}, QPoint(knob - 200, y));
  settle();
  EXPECT_EQ(panel->masterMuteSymbol().symbolName(),
            ViewRules::volumeIcon(false, app.systemVolume().volume().get()));

  QTest::mouseClick(&panel->masterMuteButton(), Qt::LeftButton);
  EXPECT_TRUE(app.systemVolume().isMuted().get());
  settle();
  EXPECT_EQ(panel->masterMuteButton().toolTip(), QStringLiteral("System-Ton wieder einschalten"));
}

TEST_F(PanelTest, MassActionsMuteAllThenUnmuteAll) {
  AppState& app = startWithApps(3);
  ASSERT_EQ(panel->massActionText().text(), QStringLiteral("Alle stummschalten"));
  QTest::mouseClick(&panel->massActionButton(), Qt::LeftButton);
  EXPECT_EQ(app.muter().activeMuteCount(), 3);
  settle();
  EXPECT_EQ(panel->massActionText().text(), QStringLiteral("Alle wieder laut"));
  EXPECT_EQ(panel->subtitleLabel().text(), QStringLiteral("3 von 3 stummgeschaltet"));
  QTest::mouseClick(&panel->massActionButton(), Qt::LeftButton);
  EXPECT_EQ(app.muter().activeMuteCount(), 0);
  settle();
  EXPECT_EQ(panel->massActionText().text(), QStringLiteral("Alle stummschalten"));
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

TEST_F(PanelTest, MediaButtonsPressTheirKeysLeftToRight) {
  startWithApps(0);
  const char* const tooltips[] = {"Vorheriger Titel", "Wiedergabe/Pause", "Nächster Titel"};
  const char* const symbols[] = {"backward.fill", "playpause.fill", "forward.fill"};
  for (std::size_t index = 0; index < 3; ++index) {
    PlainButton& button = panel->mediaButton(index);
    EXPECT_EQ(button.size(), QSize(30, 24));
    EXPECT_EQ(button.toolTip(), QString::fromUtf8(tooltips[index]));
    EXPECT_EQ(button.accessibleName(), QString::fromUtf8(tooltips[index]));
    EXPECT_EQ(button.findChild<SymbolView*>()->symbolName(), QString::fromLatin1(symbols[index]));
    // The corner of the frame reacts as well as the symbol.
    QTest::mouseClick(&button, Qt::LeftButton, {}, QPoint(1, 1));
  }
  EXPECT_EQ(mediaPlayers.sent,
            (std::vector<MediaKey>{MediaKey::previous, MediaKey::playPause, MediaKey::next}));
}

TEST_F(PanelTest, FooterAndNoticeCallTheirActions) {
  startWithApps(1);
  http->answer({.body = R"({"version":"1.4.2"})"});
  settle();
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
  const auto* shortcut = panel->findChild<QShortcut*>();
  ASSERT_NE(shortcut, nullptr);
  EXPECT_EQ(shortcut->key(), QKeySequence(QKeySequence::Quit));
  emit const_cast<QShortcut*>(shortcut)->activated();
  EXPECT_EQ(quits, 2);
  EXPECT_EQ(panel->aboutButton().accessibleName(), QString::fromUtf8("Über Quellix"));
  EXPECT_EQ(panel->quitButton().accessibleName(), QStringLiteral("Beenden"));
}

TEST_F(PanelTest, RowsFollowTheListAndAChangedListAnimates) {
  startWithApps(2);
  std::vector<AppRowView*> before = panel->rows();
  ASSERT_EQ(before.size(), 2u);
  const int height = panel->height();
  addPlayingApp(2000, "org.example.Late", "Late");
  state->monitor().refresh();
  settle();
  EXPECT_EQ(panel->listChangeCount(), 1);
  ASSERT_EQ(panel->rows().size(), 3u);
  for (AppRowView* kept : before) {
    EXPECT_NE(std::find(panel->rows().begin(), panel->rows().end(), kept), panel->rows().end());
  }
  QTest::qWait(MenuBarView::kListAnimationMilliseconds + 100);
  EXPECT_EQ(panel->height(), height + panel->rows().at(0)->height() + 1);
}

}  // namespace
}  // namespace quellix::ui
