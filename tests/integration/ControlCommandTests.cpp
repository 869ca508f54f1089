#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <algorithm>
#include <fstream>
#include <sstream>

#include "desktop/runtime/RemoteControl.h"
#include "harness/DBusClient.h"
#include "harness/DesktopSession.h"
#include "harness/FakeShortcutPortal.h"
#include "harness/LevelMeter.h"

namespace quellix {
namespace {

using testing::ChildProcess;

constexpr auto kRecorderSettling = std::chrono::milliseconds(1500);
constexpr auto kSilenceSettling = std::chrono::milliseconds(600);
constexpr auto kLevelWindow = std::chrono::milliseconds(100);
constexpr auto kStartTimeout = std::chrono::seconds(20);
constexpr auto kExitTimeout = std::chrono::seconds(10);
const QString kService = QStringLiteral("com.norvalin.Quellix");
const QString kPath = QStringLiteral("/com/norvalin/Quellix");
const QString kControl = QStringLiteral("com.norvalin.Quellix.Control");

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "control_command_tests";
  static char* argv[] = {name, nullptr};
  static auto* app = new QCoreApplication(argc, argv);
  return *app;
}

struct CommandResult {
  std::optional<int> status;
  std::string errorOutput;
};

// The program run from a script, against a session's running instance (or none).
class ControlCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    application();
    session_ = std::make_unique<testing::DesktopSession>(testing::DesktopSession::Options{});
    session_->play("com.example.alpha", "out1", 440.0);
  }

  CommandResult command(const std::vector<std::string>& arguments) {
    std::vector<std::string> line = {QUELLIX_BINARY};
    line.insert(line.end(), arguments.begin(), arguments.end());
    const auto errors =
        session_->scratchDir() / ("command-" + std::to_string(++commands_) + ".err");
    ChildProcess process(line, {.outputFile = "/dev/null", .errorFile = errors.string()});
    CommandResult result{process.wait(kExitTimeout), {}};
    std::ifstream file(errors);
    std::stringstream text;
    text << file.rdbuf();
    result.errorOutput = text.str();
    return result;
  }

  RemoteAppList listed() {
    const QDBusMessage answer =
        testing::callAndWait(bus_, kService, kPath, kControl, QStringLiteral("ListApps"));
    RemoteAppList apps;
    if (answer.type() == QDBusMessage::ReplyMessage) {
      answer.arguments().first().value<QDBusArgument>() >> apps;
    }
    return apps;
  }

  std::unique_ptr<testing::DesktopSession> session_;
  QDBusConnection bus_{QString()};
  int commands_ = 0;
};

TEST_F(ControlCommandTest, MutesTheNamedAppAtTheOutputAndRefusesWhatItCannotDo) {
  const CommandResult alone = command({"--mute", "com.example.alpha"});
  EXPECT_NE(alone.status, 0) << "no instance runs yet";
  EXPECT_EQ(alone.errorOutput, "Quellix läuft nicht.\n");

  const auto quellix = session_->startQuellix();
  bus_ = testing::connectPrivately();
  ASSERT_TRUE(session_->eventually([&] { return !listed().isEmpty(); }, kStartTimeout))
      << "the instance never listed the player";

  testing::DBusSignalRecorder appChanges(bus_, kService, kPath, kControl,
                                         QStringLiteral("AppChanged"));
  // Waited for by what the recorder delivered, which a loaded machine holds up for seconds.
  testing::MonitorRecording sink(session_->scratchDir() / "out1.raw", "out1.monitor");
  ASSERT_TRUE(session_->eventually([&] { return sink.hasRecorded(kRecorderSettling); }));
  const CommandResult muted = command({"--mute", "com.example.alpha"});
  EXPECT_EQ(muted.status, 0) << muted.errorOutput;
  EXPECT_EQ(muted.errorOutput, "");
  ASSERT_TRUE(session_->eventually(
      [&] { return sink.hasRecorded(kRecorderSettling + kSilenceSettling * 2); }));
  const auto levels = sink.stop(kLevelWindow);
  // Its first windows can be silence from before it settled, so the loudest one stands for
  // "before"; the last ones are after the command.
  EXPECT_GT(*std::max_element(levels.begin(), levels.end()), testing::kHeardAboveDbfs)
      << "the player was not heard before: " << testing::describeLevels(levels);
  EXPECT_LT(testing::medianOfLast(levels, 3), testing::kSilentBelowDbfs)
      << "the player is still heard: " << testing::describeLevels(levels);

  struct Case {
    std::vector<std::string> arguments;
    std::string line;
  };
  for (const Case& c : {
           Case{{"--unmute", "nosuchapp"}, "Keine Anwendung „nosuchapp“ spielt gerade Ton.\n"},
           Case{{"--volume", "com.example.alpha", "150"},
                "Die Lautstärke muss eine Zahl von 0 bis 100 sein, nicht „150“.\n"},
           Case{{"--volume", "com.example.alpha", "laut"},
                "Die Lautstärke muss eine Zahl von 0 bis 100 sein, nicht „laut“.\n"},
       }) {
    SCOPED_TRACE(c.arguments.front() + " " + c.arguments.back());
    const CommandResult refused = command(c.arguments);
    EXPECT_NE(refused.status, 0);
    EXPECT_EQ(refused.errorOutput, c.line);
    const RemoteAppList apps = listed();
    ASSERT_EQ(apps.size(), 1);
    EXPECT_TRUE(apps.front().muted) << "a refused command changed the row";
    EXPECT_EQ(apps.front().volume, 100u);
  }

  EXPECT_EQ(command({"--volume", "com.example.alpha", "30"}).status, 0);
  EXPECT_EQ(command({"--toggle", "com.example.alpha"}).status, 0);
  const RemoteAppList apps = listed();
  ASSERT_EQ(apps.size(), 1);
  EXPECT_FALSE(apps.front().muted);
  EXPECT_EQ(apps.front().volume, 30u);
  // The mute, the volume, the toggle: each told once, the refusals not at all.
  EXPECT_TRUE(session_->eventually([&] { return appChanges.count() >= 3; }));
  EXPECT_EQ(appChanges.count(), 3);

  testing::callAndWait(bus_, kService, kPath, kControl, QStringLiteral("SetMasterMuted"), {true});
  const QDBusMessage master =
      testing::callAndWait(bus_, kService, kPath, kControl, QStringLiteral("GetMaster"));
  EXPECT_TRUE(master.arguments().value(1).toBool()) << "the master mute was not set";
}

// The desktop's shortcuts, bound through its portal: one silences the media player that plays
// now (mpv with its MPRIS plugin, beside a player without one), the other brings back all.
TEST_F(ControlCommandTest, ShortcutsSilenceTheCurrentPlayerAndBringBackAll) {
  bus_ = testing::connectPrivately();
  testing::FakeShortcutPortal portal(bus_);
  const auto tone = session_->scratchDir() / "mpris.wav";
  testing::runProgram({"sox", "-n", "-r", "48000", "-c", "2", tone.string(), "synth", "1", "sine",
                       "660", "vol", "0.5"});
  // Launched from an entry of its own, as a desktop launches it; the shell becomes the player.
  const auto entry = session_->scratchDir() / "data" / "applications" / "com.example.beta.desktop";
  std::ofstream(entry) << "[Desktop Entry]\nType=Application\nName=beta\nExec=mpv\n";
  ChildProcess player({"sh", "-c",
                       "exec env GIO_LAUNCHED_DESKTOP_FILE=\"$0\" GIO_LAUNCHED_DESKTOP_FILE_PID=$$ "
                       "mpv --no-video --no-config --ao=pulse --loop-file=inf --no-terminal "
                       "--script=/usr/lib/mpv-mpris/mpris.so \"$1\"",
                       entry.string(), tone.string()},
                      {.outputFile = (session_->scratchDir() / "mpris-player.log").string()});
  const auto quellix = session_->startQuellix();
  ASSERT_TRUE(session_->eventually(
      [&] { return listed().size() == 2 && portal.boundIds.size() == 2; }, kStartTimeout))
      << "the instance never listed both players or bound its shortcuts";
  const auto muted = [&](bool alpha, bool mpris) {
    const RemoteAppList apps = listed();
    return apps.size() == 2 && std::all_of(apps.begin(), apps.end(), [&](const RemoteApp& app) {
             return app.muted == (app.id == QStringLiteral("com.example.alpha") ? alpha : mpris);
           });
  };

  portal.activate(QStringLiteral("toggle-current-player"));
  EXPECT_TRUE(session_->eventually([&] { return muted(false, true); }))
      << "the media player was not silenced alone; " << [&] {
           std::string rows;
           for (const RemoteApp& app : listed()) {
             rows += app.id.toStdString() + (app.muted ? " muted " : " heard ");
           }
           return rows;
         }();
  ASSERT_EQ(command({"--mute", "com.example.alpha"}).status, 0);
  portal.activate(QStringLiteral("unmute-all"));
  EXPECT_TRUE(session_->eventually([&] { return muted(false, false); })) << "not all came back";
}

}  // namespace
}  // namespace quellix
