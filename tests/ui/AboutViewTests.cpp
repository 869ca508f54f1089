#include "ui/AboutView.h"

#include <gtest/gtest.h>

#include <QTest>

#include "ui/AppIconView.h"
#include "ui/PanelTestSupport.h"
#include "ui/PlainButton.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"

namespace quellix::ui {
namespace {

class AboutViewTest : public testing::ViewTest {};

TEST_F(AboutViewTest, ShowsTheStatisticsItWasStartedWith) {
  struct Case {
    const char* render;  // empty: no picture
    std::int64_t count;
    double seconds;
    const char* countText;
    const char* countLabel;
    const char* quiet;
  };
  const Case cases[] = {
      {"about-fresh", 0, 0, "0", "Apps gemutet", "0 s"},
      {"", 1, 59.99, "1", "App gemutet", "59 s"},
      {"", 2, 754, "2", "Apps gemutet", "12 min"},
      {"about-1234-mutes-5400s", 1234, 5400, "1234", "Apps gemutet", "1.5 h"},
      {"", 7, 36000, "7", "Apps gemutet", "10 h"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.countText);
    defaults->set("stats.muteCount", c.count);
    defaults->set("stats.mutedSeconds", c.seconds);
    AppState& app = start();
    AboutView about(app, QStringLiteral("1.3"));
    about.show();
    settle();
    EXPECT_EQ(about.size(), QSize(340, 330));
    EXPECT_EQ(about.versionLabel().text(), QStringLiteral("Version 1.3"));
    EXPECT_EQ(about.muteCountValue().text(), QString::fromLatin1(c.countText));
    EXPECT_EQ(about.muteCountLabel().text(), QString::fromLatin1(c.countLabel));
    EXPECT_EQ(about.quietTimeValue().text(), QString::fromLatin1(c.quiet));
    EXPECT_EQ(about.quietTimeLabel().text(), QStringLiteral("Ruhe verschafft"));
    EXPECT_TRUE(about.iconView().source().contains(QStringLiteral("com.norvalin.quellix")));
    // The two statistics share the card's width, so the divider sits in the middle.
    const int countCentre =
        about.muteCountValue().mapTo(&about, about.muteCountValue().rect().center()).x();
    const int quietCentre =
        about.quietTimeValue().mapTo(&about, about.quietTimeValue().rect().center()).x();
    EXPECT_NEAR((countCentre + quietCentre) / 2.0, 170, 1.5);
    if (std::string(c.render) != "") {
      ui::testing::saveRenders(about, QString::fromLatin1(c.render));
    }
    state.reset();
  }
}

TEST_F(AboutViewTest, FollowsTheCountAndOpensTheWebsite) {
  addPlayingApp(100, "org.example.Music", "Music");
  AppState& app = start();
  AboutView about(app, std::nullopt);
  about.show();
  settle();
  EXPECT_EQ(about.versionLabel().text(), QString::fromUtf8("Version \u2014"));
  app.muter().toggle(app.monitor().apps().get().at(0));
  settle();
  EXPECT_EQ(about.muteCountValue().text(), QStringLiteral("1"));
  EXPECT_EQ(about.muteCountLabel().text(), QStringLiteral("App gemutet"));

  std::vector<QUrl> opened;
  about.openUrl = [&](const QUrl& url) { opened.push_back(url); };
  QTest::mouseClick(&about.link(), Qt::LeftButton);
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].scheme(), QStringLiteral("https"));
  EXPECT_EQ(opened[0].path(), QStringLiteral("/apps"));
  EXPECT_EQ(opened[0].query(), QStringLiteral("utm_source=quellix&utm_medium=about"));
  EXPECT_EQ(about.link().accessibleName(), opened[0].host());
}

}  // namespace
}  // namespace quellix::ui
