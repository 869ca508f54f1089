#include "desktop/apps/ProcFiles.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

using Kind = ProcFiles::CgroupCandidate::Kind;

TEST(ProcFiles, StatTakesTheNameUpToTheLastParenthesis) {
  const auto stat = ProcFiles::parseStat(
      "4711 (Web (Content) 1) S 4700 4711 4711 0 -1 4194560 1 0 0 0 3 1 0 0 20 0 12 0 987654 "
      "1000 10 18446744073709551615\n");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->name, "Web (Content) 1");
  EXPECT_EQ(stat->parent, 4700);
  EXPECT_EQ(stat->startTime, 987654u);
  for (const char* bad : {"", "4711 (short) S 1 2 3\n",
                          "4711 )(x S 1 2 3 4 5 6 7 8 9 10 11 12 13 "
                          "14 15 16 17 18 19 20",
                          "4711 (x) S parent 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18"}) {
    EXPECT_FALSE(ProcFiles::parseStat(bad)) << bad;
  }
}

TEST(ProcFiles, TheLauncherNamesOnlyTheProcessItLaunched) {
  using namespace std::string_literals;
  const auto environment =
      "HOME=/root\0GIO_LAUNCHED_DESKTOP_FILE=/usr/share/applications/"
      "org.gnome.Terminal.desktop\0GIO_LAUNCHED_DESKTOP_FILE_PID=11"s;
  EXPECT_EQ(ProcFiles::launchedDesktopID(environment, 11), "org.gnome.Terminal");
  EXPECT_FALSE(ProcFiles::launchedDesktopID(environment, 12));
  EXPECT_FALSE(ProcFiles::launchedDesktopID("GIO_LAUNCHED_DESKTOP_FILE_PID=11"s, 11));
  EXPECT_FALSE(ProcFiles::launchedDesktopID(""s, 0));
}

TEST(ProcFiles, FlatpakInfoAndCgroupNameTheirApplications) {
  EXPECT_EQ(ProcFiles::flatpakAppID("[Application]\nname=org.mozilla.firefox\nruntime=x\n"),
            "org.mozilla.firefox");
  EXPECT_EQ(ProcFiles::flatpakAppID("[Application]\nname=org.example.Last"), "org.example.Last");
  EXPECT_FALSE(ProcFiles::flatpakAppID("name=at.the.start\n"));

  EXPECT_EQ(ProcFiles::cgroupCandidates("0::/user.slice/snap.spotify.spotify-a1b2.scope\n"
                                        "0::/app.slice/app-gnome-firefox\\x2desr-77.scope\n"
                                        "0::/app.slice/app-org.example.Chat@5.service"),
            (std::vector<ProcFiles::CgroupCandidate>{{Kind::desktopID, "spotify_spotify"},
                                                     {Kind::appID, "firefox-esr"},
                                                     {Kind::appID, "gnome-firefox-esr"},
                                                     {Kind::appID, "org.example.Chat"}}));
  for (const char* nothing : {"", "0::/", "0::/app-.scope", "0::/app-x.service.d", "snap."}) {
    EXPECT_TRUE(ProcFiles::cgroupCandidates(nothing).empty()) << nothing;
  }
}

}  // namespace
}  // namespace quellix
