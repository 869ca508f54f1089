#include "state/SelfMover.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <QStandardPaths>
#include <fstream>

#include "desktop/apps/DesktopEntries.h"
#include "harness/TestSupport.h"
#include "state/MoveAlerts.h"

namespace quellix::SelfMover {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::readFile;
using testing::writeFile;

class ScriptedAlerts final : public MoveAlerts {
 public:
  bool offer() override {
    ++offers;
    return agree;
  }
  void showFailure() override { ++failures; }

  bool agree = false;
  int offers = 0;
  int failures = 0;
};

constexpr const char* kGreeting = "hello from the copy";

void writeProgram(const fs::path& path) {
  writeFile(path, std::string("#!/bin/sh\necho '") + kGreeting + "'\n");
  fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec,
                  fs::perm_options::replace);
}

// What a program prints when run from where it now lies.
std::string runProgram(const fs::path& program) {
  QProcess process;
  process.start(QString::fromStdString(program.string()), {});
  process.waitForFinished(10000);
  return process.readAllStandardOutput().trimmed().toStdString();
}

class SelfMoverTest : public ::testing::Test {
 protected:
  Environment environment(std::optional<Bundle> bundle) {
    return Environment{
        .bundle = std::move(bundle),
        .home = home,
        .downloads = home / "Downloads",
        .dataHome = home / ".local/share",
        .optOutFiles = {optOutFile},
        .alerts = alerts,
        .launch =
            [this](const fs::path& program, std::function<void()> launched) {
              launchedPrograms.push_back(program);
              if (launchReportsBack) {
                launched();
              }
            },
        .queue = queue,
        .quit = [this] { ++quits; },
        .logs = logs,
        .releaseInstance = [this] { releasedAfterLaunches.push_back(launchedPrograms.size()); },
    };
  }

  static Bundle appImage(const fs::path& path) { return {Bundle::Kind::appImage, path, {}}; }

  fs::path desktopEntry() const { return home / ".local/share/applications" / kDesktopEntryName; }

  testing::TemporaryDirectory temporary;
  fs::path home = temporary.path() / "home of tester";
  fs::path optOutFile = temporary.path() / "no_desktopintegration";
  ScriptedAlerts alerts;
  ManualQueue queue;
  std::vector<fs::path> launchedPrograms;
  bool launchReportsBack = false;
  // How many programs had been launched each time the instance claim was given up.
  std::vector<std::size_t> releasedAfterLaunches;
  int quits = 0;
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
};

// Declining ("later") changes nothing.
TEST_F(SelfMoverTest, OffersOnlyForDownloadsAndRemovableMediaAndLaterChangesNothing) {
  writeProgram(home / "Downloads/Quellix-1.0-x86_64.AppImage");
  struct Case {
    std::optional<fs::path> bundle;
    bool offers;
  };
  const std::vector<Case> cases = {
      {home / "Downloads/Quellix-1.0-x86_64.AppImage", true},
      {home / "Downloads/sub/folder/Quellix.AppImage", true},
      {home / "Downloads2/Quellix.AppImage", true},
      {"/media/stick/Quellix.AppImage", true},
      {"/run/media/tester/STICK/Quellix.AppImage", true},
      {"/mnt/share/Quellix", true},
      {home / "Applications/Quellix.AppImage", false},
      {home / "Applications/Tools/Quellix.AppImage", false},
      {"/usr/local/bin/Quellix.AppImage", false},
      {"/opt/quellix", false},
      {home / "downloads/Quellix.AppImage", false},
      {home / "Projects/Quellix.AppImage", false},
      {"/mediathek/Quellix.AppImage", false},
      {"/mntx/Quellix.AppImage", false},
      {std::nullopt, false},
  };
  for (const auto& c : cases) {
    alerts.offers = 0;
    EXPECT_FALSE(offerMoveIfNeeded(
        environment(c.bundle ? std::optional(appImage(*c.bundle)) : std::nullopt)));
    EXPECT_EQ(alerts.offers, c.offers ? 1 : 0) << c.bundle.value_or("no bundle");
  }
  EXPECT_FALSE(fs::exists(home / "Applications"));
  EXPECT_FALSE(fs::exists(desktopEntry()));
  EXPECT_TRUE(launchedPrograms.empty());
  EXPECT_TRUE(releasedAfterLaunches.empty());
  EXPECT_EQ(queue.pendingTimers(), 0u);
  queue.advance(10s);
  EXPECT_EQ(quits, 0);

  // Opted out, or in its own folder even on removable media: never asked.
  alerts.offers = 0;
  home = "/mnt/home/tester";
  EXPECT_FALSE(offerMoveIfNeeded(environment(appImage(home / "Applications/Quellix.AppImage"))));
  writeFile(optOutFile, "");
  EXPECT_FALSE(offerMoveIfNeeded(environment(appImage(home / "Downloads/Quellix.AppImage"))));
  EXPECT_EQ(alerts.offers, 0);
}

TEST_F(SelfMoverTest, AppImageReplacesTheOldCopyRunsFromItsNewPlaceAndQuits) {
  const fs::path source = home / "Downloads/Quellix-1.0-x86_64.AppImage";
  writeProgram(source);
  const fs::path destination = home / "Applications/Quellix.AppImage";
  alerts.agree = true;
  for (const bool reportsBack : {false, true}) {
    SCOPED_TRACE(reportsBack ? "the launch reports back" : "the launch never reports back");
    writeFile(destination, "an older version");
    launchReportsBack = reportsBack;
    launchedPrograms.clear();
    releasedAfterLaunches.clear();
    quits = 0;

    EXPECT_TRUE(offerMoveIfNeeded(environment(appImage(source))));

    EXPECT_EQ(readFile(destination), readFile(source));
    EXPECT_TRUE(fs::exists(source));
    EXPECT_EQ(runProgram(destination), kGreeting);
    EXPECT_EQ(launchedPrograms, std::vector<fs::path>{destination});
    EXPECT_EQ(releasedAfterLaunches, std::vector<std::size_t>{0})
        << "the copy starts with the instance claim already given up";
    EXPECT_EQ(alerts.failures, 0);
    EXPECT_EQ(quits, 0) << "the quit goes through the main queue";
    queue.drain();
    if (!reportsBack) {
      // Only the grace period ends the process.
      queue.advance(kQuitGracePeriod - 1ms);
      EXPECT_EQ(quits, 0);
      queue.advance(1ms);
    }
    EXPECT_EQ(quits, 1);
  }
}

TEST_F(SelfMoverTest, DesktopEntryStartsTheCopyWhateverItsPath) {
  // Every character the Exec line reserves, on the way to the copy.
  home = temporary.path() / R"(odd "name" $HOME 100% \x)";
  const fs::path source = home / "Downloads/Quellix.AppImage";
  writeProgram(source);
  alerts.agree = true;

  ASSERT_TRUE(offerMoveIfNeeded(environment(appImage(source))));

  // Read back as a launcher reads it, whichever quoting the writer chose.
  const auto values = readDesktopEntryGroup(desktopEntry());
  ASSERT_TRUE(values.has_value());
  const auto words = execArguments(values->at("Exec"));
  ASSERT_EQ(words.size(), 1u) << values->at("Exec");
  EXPECT_EQ(words[0], (home / "Applications/Quellix.AppImage").string());
  EXPECT_EQ(runProgram(words[0]), kGreeting);
  EXPECT_EQ(values->at("Name"), "Quellix");

  const QString validator = QStandardPaths::findExecutable("desktop-file-validate");
  if (validator.isEmpty()) {
    GTEST_SKIP() << "desktop-file-validate is not installed";
  }
  QProcess validate;
  validate.setProcessChannelMode(QProcess::MergedChannels);
  validate.start(validator, {QString::fromStdString(desktopEntry().string())});
  ASSERT_TRUE(validate.waitForFinished(10000));
  EXPECT_EQ(validate.exitCode(), 0);
  EXPECT_EQ(validate.readAll().toStdString(), "");
}

TEST_F(SelfMoverTest, PortableFolderReplacesTheOldFolderWhole) {
  const fs::path source = home / "Downloads/quellix-1.0";
  writeProgram(source / "bin/quellix");
  writeFile(source / kPortableMarker, "");
  writeFile(source / "lib/plugins/readme.txt", "plugins");
  const fs::path destination = home / "Applications/Quellix";
  writeFile(destination / "left-over-from-the-old-version.txt", "stale");
  alerts.agree = true;

  const auto bundle = bundleFor(std::nullopt, source / "bin/quellix");
  ASSERT_TRUE(bundle.has_value());
  EXPECT_EQ(destinationFor(*bundle, home), destination);
  EXPECT_TRUE(offerMoveIfNeeded(environment(bundle)));

  EXPECT_EQ(runProgram(destination / "bin/quellix"), kGreeting);
  EXPECT_EQ(readFile(destination / "lib/plugins/readme.txt"), "plugins");
  EXPECT_FALSE(fs::exists(destination / "left-over-from-the-old-version.txt"));
  EXPECT_TRUE(fs::exists(source / "bin/quellix"));
  EXPECT_EQ(launchedPrograms, std::vector<fs::path>{destination / "bin/quellix"});
  EXPECT_NE(readFile(desktopEntry()).find((destination / "bin/quellix").string()),
            std::string::npos);
}

TEST_F(SelfMoverTest, FailedCopyIsLoggedAndReportedAndTheProgramGoesOn) {
  const fs::path source = home / "Downloads/Quellix.AppImage";
  writeProgram(source);
  // Even root cannot put anything below a plain file.
  writeFile(home / "Applications", "not a folder");
  alerts.agree = true;

  EXPECT_FALSE(offerMoveIfNeeded(environment(appImage(source))));

  EXPECT_EQ(alerts.failures, 1);
  const auto entries = logs->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, LogLevel::error);
  EXPECT_EQ(entries[0].category, "SelfMover");
  EXPECT_TRUE(launchedPrograms.empty());
  EXPECT_TRUE(releasedAfterLaunches.empty()) << "this process stays the running instance";
  EXPECT_EQ(queue.pendingTimers(), 0u);
  EXPECT_FALSE(fs::exists(desktopEntry()));
}

TEST_F(SelfMoverTest, RecognisesTheBundleItRunsFrom) {
  const fs::path appImageFile = temporary.path() / "Quellix.AppImage";
  writeProgram(appImageFile);
  const fs::path portable = temporary.path() / "portable";
  writeFile(portable / kPortableMarker, "");
  const fs::path buildTree = temporary.path() / "build/debug/src";

  const auto fromAppImage = bundleFor(appImageFile.string(), "/tmp/.mount_Quellix/usr/bin/quellix");
  ASSERT_TRUE(fromAppImage.has_value());
  EXPECT_EQ(fromAppImage->kind, Bundle::Kind::appImage);
  EXPECT_EQ(fromAppImage->path, appImageFile);
  // A portable folder is recognised in PortableFolderReplacesTheOldFolderWhole.

  EXPECT_FALSE(bundleFor(std::nullopt, buildTree / "quellix"));
  EXPECT_FALSE(bundleFor(std::nullopt, portable / "quellix")) << "the program lives in bin/";
  EXPECT_FALSE(bundleFor(std::nullopt, temporary.path() / "bin/quellix")) << "no marker";
  EXPECT_FALSE(bundleFor((temporary.path() / "gone.AppImage").string(), buildTree / "quellix"));
  EXPECT_FALSE(bundleFor(std::nullopt, "/usr/bin/quellix"));
}

}  // namespace
}  // namespace quellix::SelfMover
