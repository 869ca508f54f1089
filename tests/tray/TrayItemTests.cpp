#include "tray/TrayItem.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>
#include <QFile>
#include <QPixmap>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "harness/SessionBus.h"
#include "harness/StatusNotifierWatcher.h"
#include "harness/TrayHost.h"
#include "support/Logger.h"
#include "tray/DBusTrayTypes.h"

namespace quellix {
namespace {

using testing::DBusSignalRecorder;
using testing::StatusNotifierWatcher;
using testing::StatusNotifierWatcherAdaptor;
using testing::TrayHost;

// Generous: a loaded machine may be slow, and a passing test never waits this long.
constexpr int kDeadlineMs = 5000;
const QString kItemInterface = TrayHost::kItemInterface;
const QString kMenuPath = QStringLiteral("/MenuBar");
const QString kMenuInterface = QStringLiteral("com.canonical.dbusmenu");

QString itemOf(const TrayItem& item) {
  return item.serviceName() + QStringLiteral("/StatusNotifierItem");
}

bool waitFor(QSignalSpy& spy, qsizetype count = 1) {
  while (spy.size() < count) {
    if (!spy.wait(kDeadlineMs)) {
      return false;
    }
  }
  return true;
}

QIcon uniformIcon(QColor colour) {
  QPixmap pixmap(48, 48);
  pixmap.fill(colour);
  return QIcon(pixmap);
}

DBusMenuLayoutItem layout(TrayHost& host, int parentID, uint* revision = nullptr) {
  const auto reply = host.call(kMenuPath, kMenuInterface, QStringLiteral("GetLayout"),
                               {parentID, -1, QStringList()});
  EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
  if (revision) {
    *revision = reply.arguments().value(0).toUInt();
  }
  return qdbus_cast<DBusMenuLayoutItem>(reply.arguments().value(1));
}

QDBusMessage click(TrayHost& host, int menuID) {
  return host.call(kMenuPath, kMenuInterface, QStringLiteral("Event"),
                   {menuID, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0u});
}

TEST(TrayItemTest, RegistersWithAWatcherThatIsAlreadyThere) {
  StatusNotifierWatcher watcher;
  QSignalSpy registered(watcher.adaptor(),
                        &StatusNotifierWatcherAdaptor::StatusNotifierItemRegistered);
  TrayItem item(std::make_shared<StderrLogSink>());
  QSignalSpy availability(&item, &TrayItem::hostAvailabilityChanged);

  ASSERT_TRUE(waitFor(registered));
  EXPECT_EQ(registered.at(0).at(0).toString(), itemOf(item));
  EXPECT_TRUE(item.serviceName().startsWith(QStringLiteral("org.kde.StatusNotifierItem-")));
  ASSERT_TRUE(waitFor(availability));
  EXPECT_TRUE(item.isHostAvailable());
}

TEST(TrayItemTest, RegistersWithEachTrayThatAppearsAndFollowsItsHosts) {
  TrayItem item(std::make_shared<StderrLogSink>());
  QSignalSpy availability(&item, &TrayItem::hostAvailabilityChanged);
  EXPECT_FALSE(item.isHostAvailable());

  auto watcher = std::make_unique<StatusNotifierWatcher>();
  QSignalSpy registered(watcher->adaptor(),
                        &StatusNotifierWatcherAdaptor::StatusNotifierItemRegistered);
  ASSERT_TRUE(waitFor(registered));
  ASSERT_TRUE(waitFor(availability));
  EXPECT_TRUE(item.isHostAvailable());

  watcher.reset();
  ASSERT_TRUE(waitFor(availability, 2));
  EXPECT_FALSE(item.isHostAvailable());

  // The tray restarts, its host a moment after its watcher.
  watcher = std::make_unique<StatusNotifierWatcher>(false);
  QSignalSpy registeredAgain(watcher->adaptor(),
                             &StatusNotifierWatcherAdaptor::StatusNotifierItemRegistered);
  ASSERT_TRUE(waitFor(registeredAgain));
  EXPECT_EQ(registeredAgain.at(0).at(0).toString(), itemOf(item));
  EXPECT_FALSE(item.isHostAvailable());
  watcher->setHostRegistered(true);
  ASSERT_TRUE(waitFor(availability, 3));
  EXPECT_TRUE(item.isHostAvailable());
  watcher->setHostRegistered(false);
  ASSERT_TRUE(waitFor(availability, 4));
  EXPECT_FALSE(item.isHostAvailable());
}

TEST(TrayItemTest, PropertiesAndIntrospectionGiveTheHostsWhatTheyDecode) {
  TrayItem item(std::make_shared<StderrLogSink>());
  item.setToolTip(QStringLiteral("Quellix"), QStringLiteral("1 App stummgeschaltet"));
  TrayHost host(itemOf(item));

  EXPECT_EQ(host.itemProperty(QStringLiteral("Category")).toString(), "Hardware");
  EXPECT_EQ(host.itemProperty(QStringLiteral("Status")).toString(), "Active");
  EXPECT_FALSE(host.itemProperty(QStringLiteral("ItemIsMenu")).toBool());
  EXPECT_EQ(host.itemProperty(QStringLiteral("Menu")).value<QDBusObjectPath>().path(), kMenuPath);
  const auto toolTip =
      qdbus_cast<TrayToolTip>(host.itemProperty(QStringLiteral("ToolTip")).value<QDBusArgument>());
  EXPECT_EQ(toolTip.title, "Quellix");
  EXPECT_EQ(toolTip.text, "1 App stummgeschaltet");
  EXPECT_EQ(host.property(kMenuPath, kMenuInterface, QStringLiteral("Version")).toUInt(), 3u);

  // Hosts decode by the signatures introspection gives, not by what the values carry.
  const struct {
    QString path;
    const char* declaration;
  } kDeclarations[] = {
      {host.itemPath(), R"xml(<property name="IconPixmap" type="a(iiay)" access="read")xml"},
      {host.itemPath(), R"xml(<property name="ToolTip" type="(sa(iiay)ss)" access="read")xml"},
      {host.itemPath(), R"xml(<property name="Menu" type="o" access="read")xml"},
      {host.itemPath(), R"xml(<method name="Activate">)xml"},
      {host.itemPath(), R"xml(<method name="Scroll">)xml"},
      {host.itemPath(), R"xml(<signal name="NewIcon">)xml"},
      {kMenuPath, R"xml(<arg name="layout" type="(ia{sv}av)" direction="out"/>)xml"},
      {kMenuPath, R"xml(<arg name="events" type="a(isvu)" direction="in"/>)xml"},
      {kMenuPath, R"xml(<arg name="updatedProps" type="a(ia{sv})" direction="out"/>)xml"},
      {kMenuPath, R"xml(<arg name="removedProps" type="a(ias)" direction="out"/>)xml"},
      {kMenuPath, R"xml(<property name="Version" type="u" access="read")xml"},
  };
  for (const auto& [path, declaration] : kDeclarations) {
    const QString xml = host.call(path, QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                  QStringLiteral("Introspect"))
                            .arguments()
                            .value(0)
                            .toString();
    EXPECT_TRUE(xml.contains(QLatin1String(declaration))) << declaration;
  }
}

TEST(TrayItemTest, ClicksAndScrollsReachTheProgram) {
  TrayItem item(std::make_shared<StderrLogSink>());
  QSignalSpy activated(&item, &TrayItem::activated);
  QSignalSpy scrolled(&item, &TrayItem::scrolled);
  TrayHost host(itemOf(item));

  host.activate({120, 340});
  host.activate({0, 0});
  host.call(host.itemPath(), kItemInterface, QStringLiteral("Scroll"),
            {-1, QStringLiteral("vertical")});
  host.call(host.itemPath(), kItemInterface, QStringLiteral("Scroll"),
            {-240, QStringLiteral("Horizontal")});

  ASSERT_EQ(activated.size(), 2);
  EXPECT_EQ(activated.at(0).at(0).toPoint(), QPoint(120, 340));
  EXPECT_TRUE(activated.at(1).at(0).toPoint().isNull());
  ASSERT_EQ(scrolled.size(), 2);
  EXPECT_EQ(scrolled.at(0).at(0).toInt(), 1);
  EXPECT_EQ(scrolled.at(0).at(1).value<Qt::Orientation>(), Qt::Vertical);
  EXPECT_EQ(scrolled.at(1).at(0).toInt(), -2);
  EXPECT_EQ(scrolled.at(1).at(1).value<Qt::Orientation>(), Qt::Horizontal);
}

TEST(ScrollReadingTest, OneNotchUpIsOneNotchUpOnEveryHost) {
  const struct {
    const char* host;
    std::vector<int> deltas;
    std::vector<int> notches;
  } cases[] = {
      {"xfce4-panel up, down", {-1, 1}, {1, -1}},
      {"waybar on Wayland up, down", {-2, 2}, {1, -1}},
      {"lxqt-panel or Plasma up, down, two at once", {120, -120, 240}, {1, -1, 2}},
      {"a Qt touchpad in parts", {50, 50, 50, -150}, {0, 0, 1, -1}},
      {"small parts once the host sent a full notch", {-120, -1, -2, -117}, {-1, 0, 0, -1}},
  };
  for (const auto& c : cases) {
    ScrollReading reading;
    std::vector<int> notches;
    for (const int delta : c.deltas) {
      notches.push_back(reading.notches(delta));
    }
    EXPECT_EQ(notches, c.notches) << c.host;
  }
}

TEST(TrayItemTest, TheSymbolPicksOurIconAndSendsOutlinedPicturesInNetworkByteOrder) {
  TrayItem item(std::make_shared<StderrLogSink>());
  item.setSymbol(QStringLiteral("speaker.wave.2.fill"), uniformIcon(QColor(0x11, 0x22, 0x33)));
  TrayHost host(itemOf(item));
  auto newIcon = host.follow(host.itemPath(), kItemInterface, QStringLiteral("NewIcon"));
  auto newToolTip = host.follow(host.itemPath(), kItemInterface, QStringLiteral("NewToolTip"));
  QSignalSpy iconChanged(newIcon.get(), &DBusSignalRecorder::received);
  QSignalSpy toolTipChanged(newToolTip.get(), &DBusSignalRecorder::received);

  const QString iconName = host.itemProperty(QStringLiteral("IconName")).toString();
  EXPECT_EQ(iconName, "com.norvalin.quellix-speaker-symbolic");
  // The build tree holds the theme beside the programs, as an installation does.
  const QString themePath = host.itemProperty(QStringLiteral("IconThemePath")).toString();
  EXPECT_TRUE(QFile::exists(themePath + "/hicolor/scalable/status/" + iconName + ".svg"))
      << themePath.toStdString();
  const auto pixmaps = host.iconPixmaps();
  ASSERT_EQ(pixmaps.size(), 5u);
  for (const auto& pixmap : pixmaps) {
    EXPECT_EQ(pixmap.width, pixmap.height);
    ASSERT_EQ(pixmap.argb.size(), pixmap.width * pixmap.height * 4);
    // Whatever colour the picture has, it is sent light inside a dark edge.
    EXPECT_EQ(pixmap.argb.left(4), QByteArray::fromHex("ff1c1c1c")) << pixmap.width;
    const int middle = (pixmap.width / 2 * pixmap.width + pixmap.width / 2) * 4;
    EXPECT_EQ(pixmap.argb.mid(middle, 4), QByteArray::fromHex("fff4f4f4")) << pixmap.width;
  }
  EXPECT_EQ(pixmaps.front().width, 16);
  EXPECT_EQ(pixmaps.back().width, 48);

  item.setSymbol(QStringLiteral("speaker.slash.fill"), uniformIcon(Qt::black));
  ASSERT_TRUE(waitFor(iconChanged));
  EXPECT_EQ(host.itemProperty(QStringLiteral("IconName")).toString(),
            "com.norvalin.quellix-speaker-muted-symbolic");

  // The same symbol again tells the host nothing: the tooltip's signal, sent after it,
  // arrives with no icon signal before it.
  item.setSymbol(QStringLiteral("speaker.slash.fill"), uniformIcon(Qt::black));
  item.setToolTip(QStringLiteral("Quellix"), QString());
  ASSERT_TRUE(waitFor(toolTipChanged));
  EXPECT_EQ(iconChanged.size(), 1);
}

TEST(TrayItemTest, TheTraysOwnSymbolsWinOverTheSymbolDirectory) {
  // Full squares in the directory: a picture from there is light in its top right corner,
  // where the tray's speakers have nothing.
  QTemporaryDir directory;
  for (const char* name : {"speaker.slash.fill", "waveform"}) {
    QFile svg(directory.filePath(QString::fromLatin1(name) + ".svg"));
    ASSERT_TRUE(svg.open(QIODevice::WriteOnly));
    svg.write(R"(<svg xmlns="http://www.w3.org/2000/svg" width="16" height="16">)"
              R"(<rect x="0" y="0" width="16" height="16" fill="#000"/></svg>)");
  }
  const auto topRight = [](const TrayHost::Pixmap& pixmap) {
    return pixmap.argb.mid((2 * pixmap.width + pixmap.width - 3) * 4, 4);
  };
  const struct {
    const char* symbol;
    QByteArray topRight;
  } cases[] = {{"speaker.slash.fill", QByteArray(4, '\0')},
               {"waveform", QByteArray::fromHex("fff4f4f4")}};
  for (const auto& c : cases) {
    TrayItem item(std::make_shared<StderrLogSink>());
    item.setSymbolDirectory(directory.path());
    item.setSymbol(QString::fromLatin1(c.symbol));
    TrayHost host(itemOf(item));
    const auto pixmaps = host.iconPixmaps();
    ASSERT_EQ(pixmaps.size(), 5u) << c.symbol;
    EXPECT_EQ(topRight(pixmaps.back()), c.topRight) << c.symbol;
  }
}

TEST(TrayItemTest, TheMenuLayoutCarriesTheEntriesAndAClickTriggersOne) {
  TrayItem item(std::make_shared<StderrLogSink>());
  item.setMenuEntries({{.id = "panel", .label = "Quellix öffnen"},
                       TrayMenuEntry::separator(),
                       {.id = "about", .label = "Über_Quellix", .enabled = false},
                       {.id = "quit", .label = "Beenden"}});
  QSignalSpy triggered(&item, &TrayItem::menuEntryTriggered);
  TrayHost host(itemOf(item));

  const auto root = layout(host, 0);
  EXPECT_EQ(root.id, 0);
  EXPECT_EQ(root.properties.value("children-display").toString(), "submenu");
  ASSERT_EQ(root.children.size(), 4);
  const auto& panel = root.children[0];
  EXPECT_EQ(panel.properties.value("label").toString(), "Quellix öffnen");
  EXPECT_TRUE(panel.properties.value("enabled").toBool());
  EXPECT_EQ(root.children[1].properties.value("type").toString(), "separator");
  const auto& about = root.children[2];
  EXPECT_EQ(about.properties.value("label").toString(), "Über__Quellix");
  EXPECT_FALSE(about.properties.value("enabled").toBool());

  const auto single = layout(host, panel.id);
  EXPECT_EQ(single.id, panel.id);
  EXPECT_TRUE(single.children.isEmpty());
  EXPECT_EQ(
      host.call(kMenuPath, kMenuInterface, QStringLiteral("GetLayout"), {4711, -1, QStringList()})
          .type(),
      QDBusMessage::ErrorMessage);

  // A disabled entry and a separator do nothing; an unknown entry is an error.
  click(host, about.id);
  click(host, root.children[1].id);
  EXPECT_EQ(click(host, 4711).type(), QDBusMessage::ErrorMessage);
  click(host, root.children[3].id);
  click(host, panel.id);
  ASSERT_EQ(triggered.size(), 2);
  EXPECT_EQ(triggered.at(0).at(0).toString(), "quit");
  EXPECT_EQ(triggered.at(1).at(0).toString(), "panel");
}

TEST(TrayItemTest, ChangedEntriesKeepTheirIdsAndTellTheHostWhatChanged) {
  TrayItem item(std::make_shared<StderrLogSink>());
  item.setMenuEntries(
      {{.id = "panel", .label = "Quellix öffnen"}, {.id = "quit", .label = "Beenden"}});
  TrayHost host(itemOf(item));
  auto layoutUpdated = host.follow(kMenuPath, kMenuInterface, QStringLiteral("LayoutUpdated"));
  auto propertiesUpdated =
      host.follow(kMenuPath, kMenuInterface, QStringLiteral("ItemsPropertiesUpdated"));
  QSignalSpy layoutSpy(layoutUpdated.get(), &DBusSignalRecorder::received);
  QSignalSpy propertiesSpy(propertiesUpdated.get(), &DBusSignalRecorder::received);
  uint firstRevision = 0;
  const auto before = layout(host, 0, &firstRevision);

  item.setMenuEntries({{.id = "panel", .label = "Quellix öffnen", .enabled = false},
                       {.id = "quit", .label = "Beenden"}});
  ASSERT_TRUE(waitFor(propertiesSpy));
  EXPECT_EQ(layoutSpy.size(), 0);

  item.setMenuEntries({{.id = "update", .label = "Update verfügbar"},
                       {.id = "panel", .label = "Quellix öffnen"},
                       {.id = "quit", .label = "Beenden"}});
  ASSERT_TRUE(waitFor(layoutSpy));
  uint secondRevision = 0;
  const auto after = layout(host, 0, &secondRevision);
  EXPECT_GT(secondRevision, firstRevision);
  ASSERT_EQ(after.children.size(), 3);
  EXPECT_EQ(after.children[1].id, before.children[0].id);
  EXPECT_EQ(after.children[2].id, before.children[1].id);
}

TEST(TrayItemDeathTest, WithoutASessionBusTheItemSaysWhyAndHasNoHost) {
  // A fresh process, so that nothing has connected to the bus yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        const auto sink = std::make_shared<CapturingLogSink>();
        TrayItem item(sink);
        const bool said = sink->messages("TrayItem").size() == 1;
        std::exit(said && !item.isHostAvailable() && item.serviceName().isEmpty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quellix

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();
  }
  // The item and the watchers must not meet a desktop's real tray; Qt connects to the session
  // bus on first use, so the private one comes first.
  quellix::testing::SessionBus bus;
  ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
