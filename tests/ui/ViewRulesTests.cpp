#include "ui/ViewRules.h"

#include <gtest/gtest.h>

#include <QLocale>
#include <cstdint>
#include <optional>

namespace quellix::ui {
namespace {

using namespace ViewRules;

TEST(ViewRulesTest, SubtitleCountsAppsAndOnlyLiveMutes) {
  struct Case {
    std::size_t apps;
    int muted;
    const char* text;
  };
  const Case cases[] = {
      {0, 0, "Keine App spielt gerade Audio"},
      // An empty list wins over a stale count.
      {0, 2, "Keine App spielt gerade Audio"},
      {1, 0, "1 App mit Audio"},
      {1, 1, "1 von 1 stummgeschaltet"},
      {3, 1, "1 von 3 stummgeschaltet"},
      {3, 0, "3 Apps mit Audio"},
      {20, 0, "20 Apps mit Audio"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(subtitle(c.apps, c.muted), QString::fromUtf8(c.text)) << c.apps << "/" << c.muted;
  }
}

TEST(ViewRulesTest, VolumeIconThresholdsAreStrictAndMuteWins) {
  struct Case {
    bool muted;
    double volume;
    const char* symbol;
  };
  const Case cases[] = {
      {false, 0.0, "speaker.fill"},          {false, 0.001, "speaker.wave.1.fill"},
      {false, 0.339, "speaker.wave.1.fill"}, {false, 0.34, "speaker.wave.2.fill"},
      {false, 0.669, "speaker.wave.2.fill"}, {false, 0.67, "speaker.wave.3.fill"},
      {false, 1.0, "speaker.wave.3.fill"},   {true, 0.0, "speaker.slash.fill"},
      {true, 0.5, "speaker.slash.fill"},     {true, 1.0, "speaker.slash.fill"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(volumeIcon(c.muted, c.volume), QString::fromLatin1(c.symbol))
        << c.muted << " " << c.volume;
  }
}

TEST(ViewRulesTest, OneMassActionOrNone) {
  EXPECT_EQ(massAction(0, false), MassAction::none);
  EXPECT_EQ(massAction(0, true), MassAction::muteAll);
  EXPECT_EQ(massAction(1, true), MassAction::unmuteAll);
  EXPECT_EQ(massAction(2, true), MassAction::unmuteAll);
  EXPECT_TRUE(massActionText(MassAction::none).isEmpty());
}

// The indicator shows only unmuted sound; the slider is dimmest when muted, and dimmed at full
// volume, so that a turned-down application stands out.
TEST(ViewRulesTest, RowLooksFollowMuteAndVolume) {
  EXPECT_TRUE(showsPlayingIndicator(true, false));
  EXPECT_FALSE(showsPlayingIndicator(true, true));
  EXPECT_FALSE(showsPlayingIndicator(false, false));
  EXPECT_NE(stateSymbol(true), stateSymbol(false));
  EXPECT_LT(iconOpacity(true), iconOpacity(false));
  const double full = sliderOpacity(false, 1.0f);
  for (const float volume : {1.0f, 0.2f}) {
    EXPECT_LT(sliderOpacity(true, volume), full) << volume;
  }
  for (const float volume : {0.996f, 0.995f}) {
    EXPECT_EQ(sliderOpacity(false, volume), full) << volume;
  }
  for (const float volume : {0.994f, 0.5f, 0.0f}) {
    EXPECT_GT(sliderOpacity(false, volume), full) << volume;
  }
}

TEST(ViewRulesTest, QuietTimeTruncatesAndSwitchesUnitsAtStrictBounds) {
  struct Case {
    double seconds;
    const char* text;
  };
  const Case cases[] = {
      {0, "0 s"},      {42.9, "42 s"},    {59.99, "59 s"}, {60, "1 min"},
      {754, "12 min"}, {3599, "59 min"},  {3600, "1.0 h"}, {5400, "1.5 h"},
      {9000, "2.5 h"}, {35999, "10.0 h"}, {36000, "10 h"}, {45000, "12 h"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(quietTimeText(c.seconds), QString::fromLatin1(c.text)) << c.seconds;
  }
}

TEST(ViewRulesTest, QuietTimeKeepsTheDecimalPointUnderACommaLocale) {
  const QLocale previous;
  QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
  EXPECT_EQ(quietTimeText(9000), QStringLiteral("2.5 h"));
  EXPECT_EQ(quietTimeText(35999), QStringLiteral("10.0 h"));
  QLocale::setDefault(previous);
}

TEST(ViewRulesTest, OneMuteIsCountedInTheSingular) {
  EXPECT_EQ(muteCountText(1234), QStringLiteral("1234"));
  EXPECT_EQ(muteCountLabel(0), muteCountLabel(2));
  EXPECT_NE(muteCountLabel(1), muteCountLabel(2));
}

}  // namespace
}  // namespace quellix::ui
