#include "desktop/apps/Workspace.h"

#include <gtest/gtest.h>

#include "harness/FakeSystem.h"

namespace quellix {
namespace {

using testing::FakeSystem;

std::string environmentOf(std::initializer_list<std::string> variables) {
  std::string environment;
  for (const auto& variable : variables) {
    environment += variable + '\0';
  }
  return environment;
}

TEST(Workspace, MatchesProcessesToDesktopEntriesInEveryWay) {
  FakeSystem system;
  system.addApplication("org.example.Player", "Player", "/usr/bin/player %U",
                        "Name[de]=Abspieler\n");
  system.addApplication("org.gnome.Terminal", "Terminal", "gnome-terminal");
  system.addApplication("org.mozilla.firefox", "Firefox",
                        "/usr/bin/flatpak run org.mozilla.firefox",
                        "X-Flatpak=org.mozilla.firefox\n");
  system.addApplication("chat", "Chat", "env GDK_BACKEND=x11 \"/opt/Chat App/chat\" --quiet");
  system.addApplication("editor", "Editor", "launcher", "StartupWMClass=SuperEditor\n");
  system.addProcess({.pid = 10, .executable = "player"});
  system.addProcess({.pid = 11,
                     .executable = "bash",
                     .environment = environmentOf({"GIO_LAUNCHED_DESKTOP_FILE=/usr/share/"
                                                   "applications/org.gnome.Terminal.desktop",
                                                   "GIO_LAUNCHED_DESKTOP_FILE_PID=11"})});
  system.addProcess({.pid = 12,
                     .executable = "firefox",
                     .cgroup = "0::/user.slice/app.slice/"
                               "app-flatpak-org.mozilla.firefox-4242.scope\n"});
  system.addProcess({.pid = 13, .executable = "chat"});
  system.addProcess({.pid = 14, .executable = "supereditor"});
  system.addProcess({.pid = 15, .executable = "unrelated"});
  system.addApplication("firefox-esr", "Firefox ESR", "/opt/ff/run");
  system.addProcess({.pid = 16,
                     .executable = "ff",
                     .cgroup = "0::/user.slice/app-gnome-firefox\\x2desr-77.scope\n"});
  Workspace workspace(system.roots());

  const auto player = workspace.application(10);
  ASSERT_TRUE(player);
  EXPECT_EQ(player->bundleIdentifier, "org.example.Player");
  EXPECT_EQ(player->localizedName, "Abspieler");
  EXPECT_EQ(player->icon, "org.example.Player");
  EXPECT_EQ(player->bundleURL, system.applications() / "org.example.Player.desktop");
  EXPECT_TRUE(player->isProperApplication());
  EXPECT_EQ(workspace.application(11)->bundleIdentifier, "org.gnome.Terminal");
  EXPECT_EQ(workspace.application(12)->bundleIdentifier, "org.mozilla.firefox");
  EXPECT_EQ(workspace.application(13)->bundleIdentifier, "chat");
  EXPECT_EQ(workspace.application(14)->bundleIdentifier, "editor");
  EXPECT_FALSE(workspace.application(15));
  EXPECT_EQ(workspace.application(16)->bundleIdentifier, "firefox-esr");
  EXPECT_EQ(workspace.runningApplications().size(), 6u);
}

TEST(Workspace, OnlyTheTopmostProcessOfAChainWithOneEntryCounts) {
  FakeSystem system;
  system.addApplication("browser", "Browser", "browser");
  system.addProcess({.pid = 20, .executable = "browser"});
  system.addProcess({.pid = 21, .parent = 20, .executable = "browser"});
  system.addProcess({.pid = 22, .parent = 21, .executable = "browser"});
  // The inherited launcher variables name the parent, so the child is no application.
  system.addProcess({.pid = 23,
                     .parent = 20,
                     .executable = "helper",
                     .environment = environmentOf({"GIO_LAUNCHED_DESKTOP_FILE=browser.desktop",
                                                   "GIO_LAUNCHED_DESKTOP_FILE_PID=20"})});
  Workspace workspace(system.roots());
  EXPECT_TRUE(workspace.application(20));
  EXPECT_FALSE(workspace.application(21));
  EXPECT_FALSE(workspace.application(22));
  EXPECT_FALSE(workspace.application(23));
  EXPECT_EQ(workspace.parentPID(22), 21);
  EXPECT_EQ(workspace.processName(23), "helper");
}

TEST(Workspace, AReusedPIDIsANewProcess) {
  FakeSystem system;
  system.addApplication("player", "Player", "player");
  system.addProcess({.pid = 30, .executable = "player", .startTime = 100});
  Workspace workspace(system.roots());
  ASSERT_TRUE(workspace.application(30));
  system.addProcess({.pid = 30, .executable = "other", .startTime = 200});
  workspace.refresh();
  EXPECT_FALSE(workspace.application(30));
  EXPECT_EQ(workspace.processName(30), "other");
}

TEST(Workspace, BadInputIsSkippedQuietly) {
  FakeSystem system;
  system.addDesktopEntry("broken.desktop", "\xFF\xFE garbage\n[Desktop Entry\nName");
  system.addDesktopEntry(
      "hidden.desktop",
      "[Desktop Entry]\nType=Application\nName=Hidden\nExec=hidden\nHidden=true\n");
  system.addDesktopEntry("link.desktop", "[Desktop Entry]\nType=Link\nName=Link\nURL=x\n");
  system.addProcess({.pid = 40, .executable = "hidden"});
  std::filesystem::create_directories(system.proc() / "41");  // vanishing: no stat any more
  std::ofstream(system.proc() / "42" / "stat");               // not even a folder
  std::filesystem::create_directories(system.proc() / "43");
  std::ofstream(system.proc() / "43" / "stat") << "43 (truncated";
  Workspace workspace(system.roots());
  for (pid_t pid : {40, 41, 42, 43, 44}) {
    EXPECT_FALSE(workspace.application(pid)) << pid;
  }
  EXPECT_FALSE(workspace.processName(41));
  EXPECT_TRUE(workspace.runningApplications().empty());
}

TEST(Workspace, ProcessesOfOtherUsersAreNoApplications) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs to hand a folder to another user";
  }
  FakeSystem system;
  system.addApplication("player", "Player", "player");
  system.addProcess({.pid = 50, .executable = "player"});
  ASSERT_EQ(::chown((system.proc() / "50").c_str(), 4321, 4321), 0);
  Workspace workspace(system.roots());
  EXPECT_FALSE(workspace.application(50));
}

TEST(Workspace, NoticesApplicationsInstalledLater) {
  FakeSystem system;
  system.addProcess({.pid = 60, .executable = "newapp"});
  system.addApplication("old", "Old", "old");
  Workspace workspace(system.roots());
  EXPECT_FALSE(workspace.application(60));
  std::filesystem::create_directories(system.applications() / "vendor");
  system.addDesktopEntry("vendor/newapp.desktop",
                         "[Desktop Entry]\nType=Application\nName=New\nExec=newapp\n");
  workspace.refresh();
  EXPECT_EQ(workspace.application(60)->bundleIdentifier, "vendor-newapp");
}

}  // namespace
}  // namespace quellix
