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
  EXPECT_EQ(masterMuteTooltip(true), QStringLiteral("System-Ton wieder einschalten"));
  EXPECT_EQ(masterMuteTooltip(false), QStringLiteral("System stummschalten"));
}

TEST(ViewRulesTest, OneMassActionOrNone) {
  EXPECT_EQ(massAction(0, false), MassAction::none);
  EXPECT_EQ(massAction(0, true), MassAction::muteAll);
  EXPECT_EQ(massAction(1, true), MassAction::unmuteAll);
  EXPECT_EQ(massAction(2, true), MassAction::unmuteAll);
  EXPECT_EQ(massActionText(MassAction::muteAll), QStringLiteral("Alle stummschalten"));
  EXPECT_EQ(massActionText(MassAction::unmuteAll), QStringLiteral("Alle wieder laut"));
  EXPECT_TRUE(massActionText(MassAction::none).isEmpty());
  EXPECT_EQ(updateNotice(QStringLiteral("1.4.2")),
            QString::fromUtf8("Update verfügbar: Version 1.4.2"));
}

TEST(ViewRulesTest, RowLooksFollowMuteAndVolume) {
  EXPECT_EQ(rowTooltip(QStringLiteral("Safari"), true),
            QString::fromUtf8("Safari wieder hörbar machen"));
  EXPECT_EQ(rowTooltip(QStringLiteral("Safari"), false), QStringLiteral("Safari stummschalten"));
  EXPECT_EQ(stateSymbol(true), QStringLiteral("speaker.slash.fill"));
  EXPECT_EQ(stateSymbol(false), QStringLiteral("speaker.wave.2"));
  EXPECT_TRUE(showsPlayingIndicator(true, false));
  EXPECT_FALSE(showsPlayingIndicator(true, true));
  EXPECT_FALSE(showsPlayingIndicator(false, false));

  struct Case {
    bool muted;
    float volume;
    double opacity;
  };
  const Case cases[] = {
      {true, 1.0f, 0.4},     {true, 0.2f, 0.4},    {false, 1.0f, 0.65}, {false, 0.996f, 0.65},
      {false, 0.995f, 0.65}, {false, 0.994f, 1.0}, {false, 0.5f, 1.0},  {false, 0.0f, 1.0},
  };
  for (const Case& c : cases) {
    EXPECT_DOUBLE_EQ(sliderOpacity(c.muted, c.volume), c.opacity) << c.muted << " " << c.volume;
  }
  EXPECT_DOUBLE_EQ(iconOpacity(true), 0.55);
  EXPECT_DOUBLE_EQ(iconOpacity(false), 1.0);
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

TEST(ViewRulesTest, AboutStatisticsTexts) {
  EXPECT_EQ(muteCountText(0), QStringLiteral("0"));
  EXPECT_EQ(muteCountText(1234), QStringLiteral("1234"));
  EXPECT_EQ(muteCountLabel(0), QStringLiteral("Apps gemutet"));
  EXPECT_EQ(muteCountLabel(1), QStringLiteral("App gemutet"));
  EXPECT_EQ(muteCountLabel(2), QStringLiteral("Apps gemutet"));
  EXPECT_EQ(versionLine(QStringLiteral("1.3")), QStringLiteral("Version 1.3"));
  EXPECT_EQ(versionLine(std::nullopt), QString::fromUtf8("Version \u2014"));
}

}  // namespace
}  // namespace quellix::ui
