#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QTest>

#include "app/AppRemoteControl.h"
#include "desktop/runtime/GlobalShortcuts.h"
#include "desktop/runtime/SingleInstance.h"
#include "harness/AppStateFixture.h"
#include "harness/DBusClient.h"
#include "harness/FakeShortcutPortal.h"
#include "harness/SessionBus.h"

namespace quellix {
namespace {

const QString kControl = QStringLiteral("com.norvalin.Quellix.Control");

// Qt keeps its first session connection: every test of the program shares one private bus.
void usePrivateSessionBus() {
  static testing::SessionBus bus;
}

// The instance's object on a private bus, called from a connection of a script's own.
class RemoteControlTest : public testing::AppStateTest {
 protected:
  void SetUp() override {
    usePrivateSessionBus();
    AppStateTest::SetUp();
    addPlayingApp(100, "org.example.Music", "Music");
    addPlayingApp(200, "org.example.Radio", "Radio");
    defaults->set("onboardingCompleted", true);
    start();
    ASSERT_EQ(instance.claim(), SingleInstance::Outcome::primary)
        << instance.failure().toStdString();
    remote = std::make_unique<AppRemoteControl>(state->control(), instance.control());
    script = testing::connectPrivately();
  }

  void TearDown() override {
    remote.reset();
    instance.release();
    AppStateTest::TearDown();
  }

  QDBusMessage call(const QString& method, const QVariantList& arguments = {}) {
    QDBusMessage answer =
        testing::callAndWait(script, SingleInstance::kServiceName, SingleInstance::kObjectPath,
                             kControl, method, arguments);
    queue.drain();
    return answer;
  }

  RemoteAppList listed() {
    const QDBusMessage answer = call(QStringLiteral("ListApps"));
    RemoteAppList apps;
    answer.arguments().first().value<QDBusArgument>() >> apps;
    return apps;
  }

  SingleInstance instance;
  std::unique_ptr<AppRemoteControl> remote;
  QDBusConnection script{QString()};
};

TEST_F(RemoteControlTest, RequestsActOnTheRowsAndRefusalsChangeNothing) {
  testing::DBusSignalRecorder appChanges(script, SingleInstance::kServiceName,
                                         SingleInstance::kObjectPath, kControl,
                                         QStringLiteral("AppChanged"));
  struct Case {
    const char* method;
    QVariantList arguments;
    const char* error;  // nullptr: accepted
    bool musicMuted;
    uint radioVolume;
  };
  const QString nan = QStringLiteral("nan");
  for (const Case& c : {
           Case{"Mute", {QStringLiteral("MUSIC")}, nullptr, true, 100},
           Case{"Mute", {QStringLiteral("music")}, nullptr, true, 100},
           Case{"Toggle", {QStringLiteral("org.example.Music")}, nullptr, false, 100},
           Case{"SetVolume", {QStringLiteral("radio"), 35.0}, nullptr, false, 35},
           Case{"Mute", {QStringLiteral("Nothing")}, RemoteControl::kUnknownAppError, false, 35},
           Case{"SetVolume",
                {QStringLiteral("Radio"), 100.5},
                RemoteControl::kBadVolumeError,
                false,
                35},
           Case{"SetVolume",
                {QStringLiteral("Radio"), nan.toDouble()},
                RemoteControl::kBadVolumeError,
                false,
                35},
           Case{"Unmute", {QStringLiteral("music")}, nullptr, false, 35},
       }) {
    SCOPED_TRACE(std::string(c.method) + " " + c.arguments.first().toString().toStdString());
    const QDBusMessage answer = call(QString::fromLatin1(c.method), c.arguments);
    if (c.error == nullptr) {
      EXPECT_EQ(answer.type(), QDBusMessage::ReplyMessage) << answer.errorMessage().toStdString();
    } else {
      EXPECT_EQ(answer.errorName(), QString::fromLatin1(c.error));
      EXPECT_FALSE(answer.errorMessage().contains('\n'));
    }
    const RemoteAppList apps = listed();
    ASSERT_EQ(apps.size(), 2);
    EXPECT_EQ(apps[0].muted, c.musicMuted);
    EXPECT_EQ(apps[1].volume, c.radioVolume);
  }
  // Mute, unmute by toggle, the volume: one signal each; repeats and refusals none.
  EXPECT_TRUE(QTest::qWaitFor([&] { return appChanges.count() >= 3; }));
  QCoreApplication::processEvents();
  EXPECT_EQ(appChanges.count(), 3);
}

TEST_F(RemoteControlTest, MasterVolumeAndMuteAreSetAndTold) {
  testing::DBusSignalRecorder masterChanges(script, SingleInstance::kServiceName,
                                            SingleInstance::kObjectPath, kControl,
                                            QStringLiteral("MasterChanged"));
  EXPECT_EQ(call(QStringLiteral("SetMasterVolume"), {42.0}).type(), QDBusMessage::ReplyMessage);
  EXPECT_EQ(call(QStringLiteral("SetMasterMuted"), {true}).type(), QDBusMessage::ReplyMessage);
  EXPECT_EQ(call(QStringLiteral("SetMasterVolume"), {-3.0}).errorName(),
            QString::fromLatin1(RemoteControl::kBadVolumeError));
  const QDBusMessage master = call(QStringLiteral("GetMaster"));
  ASSERT_EQ(master.arguments().size(), 2);
  EXPECT_EQ(master.arguments()[0].toUInt(), 42u);
  EXPECT_TRUE(master.arguments()[1].toBool());
  EXPECT_TRUE(QTest::qWaitFor([&] { return masterChanges.count() >= 2; }));
}

TEST(GlobalShortcutsTest, OffersTheShortcutsAndReportsTheirActivation) {
  usePrivateSessionBus();
  testing::FakeShortcutPortal portal(testing::connectPrivately());
  auto logs = std::make_shared<CapturingLogSink>();
  GlobalShortcuts shortcuts(QDBusConnection::sessionBus(), logs);
  QStringList activated;
  QObject::connect(&shortcuts, &GlobalShortcuts::activated,
                   [&](const QString& id) { activated << id; });
  shortcuts.registerShortcuts({{"toggle-current-player", "Umschalten"}, {"unmute-all", "Alle"}});
  ASSERT_TRUE(QTest::qWaitFor([&] { return shortcuts.isBound(); }));
  EXPECT_EQ(portal.boundIds, (QStringList{"toggle-current-player", "unmute-all"}));
  EXPECT_EQ(portal.boundDescriptions, (QStringList{"Umschalten", "Alle"}));

  portal.activate("unmute-all");
  ASSERT_TRUE(QTest::qWaitFor([&] { return !activated.isEmpty(); }));
  EXPECT_EQ(activated, QStringList{"unmute-all"});
  EXPECT_TRUE(logs->messages().empty());
}

TEST(GlobalShortcutsTest, WithoutThePortalOnlyOneLogLine) {
  usePrivateSessionBus();
  auto logs = std::make_shared<CapturingLogSink>();
  GlobalShortcuts shortcuts(QDBusConnection::sessionBus(), logs);
  shortcuts.registerShortcuts({{"unmute-all", "Alle"}});
  EXPECT_EQ(logs->messages().size(), 1u);
  EXPECT_FALSE(shortcuts.isBound());
}

}  // namespace
}  // namespace quellix
