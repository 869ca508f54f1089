#include "desktop/login/AutostartLoginItem.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "desktop/apps/DesktopEntries.h"
#include "harness/TestSupport.h"
#include "support/TextError.h"

namespace quellix {
namespace {

using testing::readFile;
using testing::TemporaryDirectory;
using testing::writeFile;

const std::string kEntryFile = "com.norvalin.quellix.desktop";

std::string entryStarting(const std::string& program, const std::string& extra = {}) {
  return "[Desktop Entry]\nType=Application\nName=Quellix\nExec=" + execArgument(program) +
         " --quiet\n" + extra;
}

TEST(DesktopEntryExec, QuotesAndEscapesSoThatTheWordReadsBack) {
  for (const std::string word :
       {"/usr/bin/quellix", "/home/a b/Quellix.AppImage", "/tmp/$HOME`x`\"q\"\\", "/tmp/50%",
        "/tmp/it's (1);&|<>~*?#", "/tmp/tab\there", "/tmp/line\nbreak", ""}) {
    SCOPED_TRACE(word);
    const std::string exec = execArgument(word) + " --flag %U";
    EXPECT_EQ(exec.find('\n'), std::string::npos);
    EXPECT_EQ(execArguments(exec), (std::vector<std::string>{word, "--flag", "%U"}));
  }
  // \s is a space like any other: quoting alone keeps it inside a word.
  EXPECT_EQ(execArguments(R"(a\sb "c\\"d\s" e%%f)"),
            (std::vector<std::string>{"a", "b", "c\"d ", "e%f"}));
}

class AutostartLoginItemTest : public ::testing::Test {
 protected:
  AutostartLoginItem itemFor(const std::filesystem::path& started) const {
    return AutostartLoginItem(configHome, {otherSystemDir, systemDir}, started);
  }

  TemporaryDirectory root;
  std::filesystem::path configHome = root.path() / "home" / ".config";
  std::filesystem::path systemDir = root.path() / "etc" / "xdg";
  std::filesystem::path otherSystemDir = root.path() / "usr" / "etc" / "xdg";
  std::filesystem::path userEntry = configHome / "autostart" / kEntryFile;
  std::filesystem::path systemEntry = systemDir / "autostart" / kEntryFile;
  // Characters the desktop entry's quoting has to deal with.
  std::filesystem::path program = root.path() / "Apps & Tools" / "Quellix \"$1\" 100%.AppImage";
  AutostartLoginItem item = itemFor(program);
};

TEST_F(AutostartLoginItemTest, RegisteringWritesAValidEntryAndUnregisteringRemovesOrHidesIt) {
  EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
  item.registerItem();
  EXPECT_EQ(item.userEntry(), userEntry);
  ASSERT_TRUE(std::filesystem::exists(userEntry));
  EXPECT_EQ(item.status(), LoginItemStatus::enabled);

  const auto values = readDesktopEntryGroup(userEntry);
  ASSERT_TRUE(values);
  EXPECT_EQ(execArguments(values->at("Exec")), std::vector<std::string>{program.string()});

  const std::string validate = "desktop-file-validate '" + userEntry.string() + "' 2>&1";
  const int status = std::system(validate.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << readFile(userEntry);

  item.unregisterItem();
  EXPECT_FALSE(std::filesystem::exists(userEntry));
  EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
  item.unregisterItem();  // nothing left to remove is no failure

  // A system-wide entry is hidden by one of the user's, which registering replaces.
  writeFile(systemEntry, entryStarting(program));
  EXPECT_EQ(item.status(), LoginItemStatus::enabled);
  item.unregisterItem();
  EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
  EXPECT_EQ(readDesktopEntryGroup(userEntry)->at("Hidden"), "true");
  EXPECT_TRUE(std::filesystem::exists(systemEntry));
  item.registerItem();
  EXPECT_EQ(item.status(), LoginItemStatus::enabled);
}

TEST_F(AutostartLoginItemTest, IsEnabledOnlyByAVisibleEntryThatStartsThisProgram) {
  struct Case {
    std::string what;
    std::string userContents;  // empty: no user entry
    std::string systemContents;
    LoginItemStatus status;
  };
  const std::string ours = entryStarting(program);
  const std::string other = entryStarting("/usr/bin/other-player");
  const std::vector<Case> cases = {
      {"no entry", "", "", LoginItemStatus::notRegistered},
      {"user entry", ours, "", LoginItemStatus::enabled},
      {"hidden", entryStarting(program, "Hidden=true\n"), "", LoginItemStatus::notRegistered},
      {"visible", entryStarting(program, "Hidden=false\n"), "", LoginItemStatus::enabled},
      {"switched off in GNOME", entryStarting(program, "X-GNOME-Autostart-enabled=false\n"), "",
       LoginItemStatus::notRegistered},
      {"another program", other, "", LoginItemStatus::notRegistered},
      {"no Exec", "[Desktop Entry]\nType=Application\nName=Quellix\n", "",
       LoginItemStatus::notRegistered},
      {"Exec in another group", "[Other]\nExec=" + execArgument(program) + "\n", "",
       LoginItemStatus::notRegistered},
      {"system-wide entry only", "", ours, LoginItemStatus::enabled},
      {"system-wide entry hidden by the user", entryStarting(program, "Hidden=true\n"), ours,
       LoginItemStatus::notRegistered},
      {"the user's entry wins over the system's", ours, other, LoginItemStatus::enabled},
      {"system-wide entry of another program", "", other, LoginItemStatus::notRegistered},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.what);
    std::filesystem::remove_all(root.path());
    if (!testCase.userContents.empty()) {
      writeFile(userEntry, testCase.userContents);
    }
    if (!testCase.systemContents.empty()) {
      writeFile(systemEntry, testCase.systemContents);
    }
    EXPECT_EQ(item.status(), testCase.status);
  }
}

TEST_F(AutostartLoginItemTest, AProgramNamedWithoutAFolderIsFoundOnThePath) {
  const std::filesystem::path binaries = root.path() / "bin";
  writeFile(binaries / "quellix", "#!/bin/sh\n");
  std::filesystem::permissions(binaries / "quellix", std::filesystem::perms::owner_all);
  const std::string savedPath = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
  ::setenv("PATH", (binaries.string() + ":/usr/bin").c_str(), 1);
  writeFile(userEntry, "[Desktop Entry]\nType=Application\nName=Q\nExec=quellix\n");
  EXPECT_EQ(itemFor(binaries / "quellix").status(), LoginItemStatus::enabled);
  EXPECT_EQ(itemFor(binaries / ".." / "bin" / "quellix").status(), LoginItemStatus::enabled);
  EXPECT_EQ(itemFor(program).status(), LoginItemStatus::notRegistered);
  ::setenv("PATH", savedPath.c_str(), 1);
}

// Tests run as root, for whom file modes stop no write: a configuration folder that is a
// plain file, or a folder where the entry should be, stops anyone.
TEST_F(AutostartLoginItemTest, AChangeThatCannotBeWrittenFailsNamingTheEntryAndChangesNothing) {
  const auto blockedConfig = [&] {
    writeFile(systemEntry, entryStarting(program));
    writeFile(configHome, "not a folder");
  };
  struct Case {
    const char* what;
    std::function<void()> arrange;
    void (AutostartLoginItem::*change)();
  };
  const Case cases[] = {
      {"write below a file", blockedConfig, &AutostartLoginItem::registerItem},
      {"hide below a file", blockedConfig, &AutostartLoginItem::unregisterItem},
      {"remove a folder", [&] { std::filesystem::create_directories(userEntry / "in-the-way"); },
       &AutostartLoginItem::unregisterItem},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::remove_all(root.path());
    c.arrange();
    const LoginItemStatus before = item.status();
    try {
      (item.*c.change)();
      ADD_FAILURE() << "no failure";
    } catch (const TextError& error) {
      EXPECT_NE(error.description().find(userEntry.string() + ": "), std::string::npos)
          << error.description();
    }
    EXPECT_EQ(item.status(), before);
  }
}

TEST(AutostartLoginItemForThisProgram, FollowsTheSessionsFoldersAndTheAppImage) {
  TemporaryDirectory root;
  const std::string savedHome = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
  ::setenv("XDG_CONFIG_HOME", (root.path() / "config").c_str(), 1);
  ::setenv("XDG_CONFIG_DIRS", (root.path() / "xdg").c_str(), 1);
  ::setenv("APPIMAGE", (root.path() / "Quellix.AppImage").c_str(), 1);
  auto item = AutostartLoginItem::forThisProgram();
  EXPECT_EQ(item->userEntry(), root.path() / "config" / "autostart" / kEntryFile);
  item->registerItem();
  EXPECT_EQ(execArguments(readDesktopEntryGroup(item->userEntry())->at("Exec")),
            std::vector<std::string>{(root.path() / "Quellix.AppImage").string()});
  writeFile(root.path() / "xdg" / "autostart" / kEntryFile, "[Desktop Entry]\n");
  item->unregisterItem();
  EXPECT_EQ(readDesktopEntryGroup(item->userEntry())->at("Hidden"), "true");

  ::unsetenv("APPIMAGE");
  ::setenv("XDG_CONFIG_HOME", "relative/config", 1);
  ::setenv("HOME", root.path().c_str(), 1);
  item = AutostartLoginItem::forThisProgram();
  EXPECT_EQ(item->userEntry(), root.path() / ".config" / "autostart" / kEntryFile)
      << "a relative XDG_CONFIG_HOME is ignored";
  item->registerItem();
  EXPECT_EQ(item->status(), LoginItemStatus::enabled) << "the test program starts itself";
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("XDG_CONFIG_DIRS");
  ::setenv("HOME", savedHome.c_str(), 1);
}

}  // namespace
}  // namespace quellix
