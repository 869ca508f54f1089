#include <gtest/gtest.h>

#include <QTest>

#include "desktop/runtime/GlobalShortcuts.h"
#include "harness/DBusClient.h"
#include "harness/FakeShortcutPortal.h"
#include "harness/SessionBus.h"
#include "support/Logger.h"

namespace quellix {
namespace {

// Qt keeps its first session connection: every test of the program shares one private bus.
void usePrivateSessionBus() {
  static testing::SessionBus bus;
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
