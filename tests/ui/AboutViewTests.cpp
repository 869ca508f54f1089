#include "ui/AboutView.h"

#include <gtest/gtest.h>

#include <QTest>

#include "ui/AppIconView.h"
#include "ui/PanelTestSupport.h"
#include "ui/PlainButton.h"
#include "ui/TextLabel.h"
#include "ui/UiTestEnvironment.h"
#include "ui/ViewRules.h"

namespace quellix::ui {
namespace {

class AboutViewTest : public testing::ViewTest {};

TEST_F(AboutViewTest, ShowsTheStoredStatisticsSideBySide) {
  for (const auto& [count, seconds] : {std::pair{0, 0.0}, std::pair{1234, 5400.0}}) {
    defaults->set("stats.muteCount", count);
    defaults->set("stats.mutedSeconds", seconds);
    AboutView about(start(), QStringLiteral("1.3"));
    about.show();
    settle();
    EXPECT_EQ(about.versionLabel().text(), ViewRules::versionLine(QStringLiteral("1.3")));
    EXPECT_EQ(about.muteCountValue().text(), ViewRules::muteCountText(count));
    EXPECT_EQ(about.muteCountLabel().text(), ViewRules::muteCountLabel(count));
    EXPECT_EQ(about.quietTimeValue().text(), ViewRules::quietTimeText(seconds));
    // The two statistics share the card's width, so the divider sits in the middle.
    const auto centre = [&](const QWidget& label) {
      return label.mapTo(&about, label.rect().center()).x();
    };
    EXPECT_NEAR((centre(about.muteCountValue()) + centre(about.quietTimeValue())) / 2.0,
                about.width() / 2.0, 1.5);
    testing::saveRenders(about, QStringLiteral("about-%1-mutes-%2s").arg(count).arg(seconds));
    state.reset();
  }
}

TEST_F(AboutViewTest, FollowsTheCountAndOpensTheWebsite) {
  addPlayingApp(100, "org.example.Music", "Music");
  AppState& app = start();
  AboutView about(app, std::nullopt);
  about.show();
  settle();
  EXPECT_EQ(about.versionLabel().text(), ViewRules::versionLine(std::nullopt));
  app.muter().toggle(app.monitor().apps().get().at(0));
  settle();
  EXPECT_EQ(about.muteCountValue().text(), QStringLiteral("1"));
  EXPECT_EQ(about.muteCountLabel().text(), ViewRules::muteCountLabel(1));

  std::vector<QUrl> opened;
  about.openUrl = [&](const QUrl& url) { opened.push_back(url); };
  QTest::mouseClick(&about.link(), Qt::LeftButton);
  ASSERT_EQ(opened, std::vector<QUrl>{AboutView::websiteURL()});
  EXPECT_EQ(about.link().accessibleName(), opened[0].host());
}

}  // namespace
}  // namespace quellix::ui
