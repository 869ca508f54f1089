#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QVariantMap>

#include <memory>
#include <string>
#include <vector>

#include "desktop/mpris/MprisPlayers.h"
#include "harness/ChildProcess.h"
#include "harness/DBusClient.h"
#include "harness/LevelMeter.h"
#include "harness/SessionBus.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"

namespace quellix {
namespace {

using testing::ChildProcess;
using testing::kHeardAboveDbfs;
using testing::kSilentBelowDbfs;
using testing::SoundServer;

const QString kPlayerPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPlayerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
constexpr auto kMprisPlugin = "/usr/lib/mpv-mpris/mpris.so";
constexpr auto kLevelSpan = std::chrono::milliseconds(500);

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "media_keys_tests";
  static char* argv[] = {name, nullptr};
  static auto* app = new QCoreApplication(argc, argv);
  return *app;
}

// Real media players (mpv with its MPRIS plugin) on a private session bus and a private sound
// server, and the program's own MPRIS client following them.
class MediaKeysIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::unsetenv("DISPLAY");
    ::unsetenv("WAYLAND_DISPLAY");
    application();
    server_ = std::make_unique<SoundServer>(SoundServer::Kind::pulseAudio);
    bus_ = std::make_unique<testing::SessionBus>();
    connection_ = std::make_unique<QDBusConnection>(testing::connectPrivately());
    ASSERT_TRUE(connection_->isConnected());

    mpris_ = std::make_unique<MprisPlayers>(logs_, QString::fromStdString(bus_->address()));
    ASSERT_FALSE(mpris_->unreachableReason());
  }

  void TearDown() override {
    mpris_.reset();
    players_.clear();
    QDBusConnection::disconnectFromBus(connection_->name());
    connection_.reset();
    bus_.reset();
    server_.reset();
    EXPECT_TRUE(logs_->messages().empty()) << logs_->messages().front();
  }

  std::string tone(const std::string& name, int frequency) {
    const auto file = server_->runtimeDir() / (name + ".wav");
    testing::runProgram({"sox", "-n", "-r", "48000", "-c", "2", file.string(), "synth", "1", "sine",
                         std::to_string(frequency), "vol", "0.5"});
    return file.string();
  }

  // Starts a player on `files` and returns its name on the bus once Quellix knows it.
  QString startPlayer(const std::vector<std::string>& files) {
    std::vector<std::string> command = {
        "mpv",       "--no-video",      "--no-config",   "--ao=pulse",
        "--idle=no", "--loop-file=inf", "--no-terminal", std::string("--script=") + kMprisPlugin};
    command.insert(command.end(), files.begin(), files.end());
    const auto log = server_->runtimeDir() / ("mpv-" + std::to_string(players_.size()) + ".log");
    players_.push_back(
        std::make_unique<ChildProcess>(command, ChildProcess::Options{.outputFile = log.string()}));
    const pid_t pid = players_.back()->pid();
    QString name;
    EXPECT_TRUE(eventually([&] {
      name = testing::nameOwnedBy(*connection_, pid, QStringLiteral("org.mpris.MediaPlayer2."));
      return !name.isEmpty() && mpris_->isFollowing() &&
             mpris_->choice().status(name.toStdString()).has_value();
    })) << "mpv did not show up on the bus; see "
        << log;
    return name;
  }

  QVariant property(const QString& player, const QString& name) {
    return testing::propertyOf(*connection_, player, kPlayerPath, kPlayerInterface, name);
  }

  std::string status(const QString& player) {
    return property(player, "PlaybackStatus").toString().toStdString();
  }

  std::string track(const QString& player) {
    const auto metadata = qdbus_cast<QVariantMap>(property(player, "Metadata"));
    return metadata.value("xesam:url").toString().toStdString();
  }

  void command(const QString& player, const QString& method) {
    testing::callAndWait(*connection_, player, kPlayerPath, kPlayerInterface, method);
  }

  // Until the player reports `expected` and Quellix has heard of it.
  bool becomes(const QString& player, const std::string& expected) {
    const auto wanted = parsePlaybackStatus(expected);
    return eventually([&] {
      return status(player) == expected && mpris_->choice().status(player.toStdString()) == wanted;
    });
  }

  bool eventually(const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    return testing::eventually(
        condition, [] { QCoreApplication::processEvents(QEventLoop::AllEvents, 10); }, timeout);
  }

  double level() {
    return testing::settledLevel(server_->runtimeDir(), "out1.monitor", kLevelSpan);
  }

  std::unique_ptr<MprisPlayers> mpris_;
  std::vector<std::unique_ptr<ChildProcess>> players_;

 private:
  std::shared_ptr<CapturingLogSink> logs_ = std::make_shared<CapturingLogSink>();
  std::unique_ptr<SoundServer> server_;
  std::unique_ptr<testing::SessionBus> bus_;
  std::unique_ptr<QDBusConnection> connection_;
};

TEST_F(MediaKeysIntegrationTest, PlayPausePausesThePlayerAndASecondPressResumesIt) {
  const QString player = startPlayer({tone("a", 440)});
  ASSERT_TRUE(becomes(player, "Playing"));

  mpris_->send(MediaKey::playPause);
  EXPECT_TRUE(becomes(player, "Paused"));
  EXPECT_LT(level(), kSilentBelowDbfs);

  mpris_->send(MediaKey::playPause);
  EXPECT_TRUE(becomes(player, "Playing"));
  EXPECT_GT(level(), kHeardAboveDbfs);
}

TEST_F(MediaKeysIntegrationTest, TheButtonsActOnThePlayingOneAndThenOnTheLastThatChanged) {
  const QString playing = startPlayer({tone("a", 440)});
  const QString paused = startPlayer({tone("b", 660)});
  command(paused, "Pause");
  ASSERT_TRUE(becomes(paused, "Paused"));
  ASSERT_TRUE(becomes(playing, "Playing"));

  mpris_->send(MediaKey::playPause);
  EXPECT_TRUE(becomes(playing, "Paused"));
  EXPECT_EQ(status(paused), "Paused");

  // Nothing plays now; the one just paused changed last.
  mpris_->send(MediaKey::playPause);
  EXPECT_TRUE(becomes(playing, "Playing"));
  EXPECT_EQ(status(paused), "Paused");
}

TEST_F(MediaKeysIntegrationTest, NextAndPreviousChangeTheTrack) {
  const std::string first = tone("a", 440);
  const std::string second = tone("b", 660);
  const QString player = startPlayer({first, second});
  ASSERT_TRUE(eventually([&] { return track(player) == "file://" + first; }));

  mpris_->send(MediaKey::next);
  EXPECT_TRUE(eventually([&] { return track(player) == "file://" + second; }));
  mpris_->send(MediaKey::previous);
  EXPECT_TRUE(eventually([&] { return track(player) == "file://" + first; }));
}

TEST_F(MediaKeysIntegrationTest, APlayerKilledBeforeItIsReachedIsPassedOverSilently) {
  const QString doomed = startPlayer({tone("a", 440)});
  const QString survivor = startPlayer({tone("b", 660)});
  command(survivor, "Pause");
  ASSERT_TRUE(becomes(survivor, "Paused"));
  ASSERT_TRUE(becomes(doomed, "Playing"));

  // The press has chosen the playing player and is on its way to it.
  mpris_->send(MediaKey::playPause);
  players_.front()->signal(SIGKILL);
  players_.front()->wait(std::chrono::seconds(5));
  ASSERT_TRUE(
      eventually([&] { return !mpris_->choice().status(doomed.toStdString()).has_value(); }));

  mpris_->send(MediaKey::playPause);
  EXPECT_TRUE(becomes(survivor, "Playing"));
}

}  // namespace
}  // namespace quellix
