#include "tray/TrayItem.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QFile>
#include <QPixmap>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "harness/FakeStatusNotifierWatcher.h"
#include "support/Logger.h"
#include "tray/DBusTrayTypes.h"

namespace quellix {

// Generous: a loaded machine may be slow, and a passing test never waits this long.
constexpr int kDeadlineMs = 5000;

namespace {

using testing::DBusSignalRecorder;
using testing::FakeStatusNotifierWatcher;
using testing::FakeWatcherAdaptor;

const QString kItemPath = QStringLiteral("/StatusNotifierItem");
const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");
const QString kMenuPath = QStringLiteral("/MenuBar");
const QString kMenuInterface = QStringLiteral("com.canonical.dbusmenu");

// What a panel does with the item, on a connection of its own. Every call waits in an event
// loop, since the item answers on this same thread.
class Host {
 public:
  explicit Host(QString service)
      : bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("host"))),
        service_(std::move(service)) {}
  ~Host() { QDBusConnection::disconnectFromBus(QStringLiteral("host")); }

  QDBusMessage call(const QString& path, const QString& interface, const QString& method,
                    const QVariantList& arguments) {
    auto message = QDBusMessage::createMethodCall(service_, path, interface, method);
    message.setArguments(arguments);
    QDBusPendingCallWatcher watcher(bus_.asyncCall(message, kDeadlineMs));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    if (!watcher.isFinished()) {
      finished.wait(kDeadlineMs);
    }
    return watcher.reply();
  }

  QVariant property(const QString& path, const QString& interface, const QString& name) {
    const auto reply = call(path, QStringLiteral("org.freedesktop.DBus.Properties"),
                            QStringLiteral("Get"), {interface, name});
    return reply.arguments().value(0).value<QDBusVariant>().variant();
  }
  QVariant itemProperty(const QString& name) { return property(kItemPath, kItemInterface, name); }

  std::unique_ptr<DBusSignalRecorder> follow(const QString& path, const QString& interface,
                                             const QString& name) {
    return std::make_unique<DBusSignalRecorder>(bus_, service_, path, interface, name);
  }

  DBusMenuLayoutItem layout(int parentID, uint* revision = nullptr) {
    const auto reply =
        call(kMenuPath, kMenuInterface, QStringLiteral("GetLayout"), {parentID, -1, QStringList()});
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    if (revision) {
      *revision = reply.arguments().value(0).toUInt();
    }
    return qdbus_cast<DBusMenuLayoutItem>(reply.arguments().value(1));
  }

  QDBusMessage click(int menuID) {
    return call(kMenuPath, kMenuInterface, QStringLiteral("Event"),
                {menuID, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0u});
  }

 private:
  QDBusConnection bus_;
  QString service_;
};

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

TEST(TrayItemTest, RegistersWithAWatcherThatIsAlreadyThere) {
  FakeStatusNotifierWatcher watcher(QStringLiteral("watcher"), true);
  QSignalSpy registered(watcher.adaptor(), &FakeWatcherAdaptor::StatusNotifierItemRegistered);
  TrayItem item;
  QSignalSpy availability(&item, &TrayItem::hostAvailabilityChanged);

  ASSERT_TRUE(waitFor(registered));
  EXPECT_EQ(registered.at(0).at(0).toString(), item.serviceName());
  EXPECT_TRUE(item.serviceName().startsWith(QStringLiteral("org.kde.StatusNotifierItem-")));
  ASSERT_TRUE(waitFor(availability));
  EXPECT_TRUE(availability.at(0).at(0).toBool());
  EXPECT_TRUE(item.isHostAvailable());
}

TEST(TrayItemTest, AnItemStartedBeforeTheTrayRegistersWhenItAppearsAndAgainAfterARestart) {
  TrayItem item;
  QSignalSpy availability(&item, &TrayItem::hostAvailabilityChanged);
  EXPECT_FALSE(item.isHostAvailable());

  auto watcher = std::make_unique<FakeStatusNotifierWatcher>(QStringLiteral("watcher-1"), true);
  QSignalSpy registered(watcher->adaptor(), &FakeWatcherAdaptor::StatusNotifierItemRegistered);
  ASSERT_TRUE(waitFor(registered));
  ASSERT_TRUE(waitFor(availability));
  EXPECT_TRUE(item.isHostAvailable());

  watcher.reset();
  ASSERT_TRUE(waitFor(availability, 2));
  EXPECT_FALSE(availability.at(1).at(0).toBool());

  watcher = std::make_unique<FakeStatusNotifierWatcher>(QStringLiteral("watcher-2"), true);
  QSignalSpy registeredAgain(watcher->adaptor(), &FakeWatcherAdaptor::StatusNotifierItemRegistered);
  ASSERT_TRUE(waitFor(registeredAgain));
  EXPECT_EQ(registeredAgain.at(0).at(0).toString(), item.serviceName());
  ASSERT_TRUE(waitFor(availability, 3));
  EXPECT_TRUE(item.isHostAvailable());
}

TEST(TrayItemTest, AvailabilityFollowsTheHostsBehindTheWatcher) {
  FakeStatusNotifierWatcher watcher(QStringLiteral("watcher"), false);
  QSignalSpy registered(watcher.adaptor(), &FakeWatcherAdaptor::StatusNotifierItemRegistered);
  TrayItem item;
  QSignalSpy availability(&item, &TrayItem::hostAvailabilityChanged);
  ASSERT_TRUE(waitFor(registered));
  EXPECT_FALSE(item.isHostAvailable());

  watcher.setHostRegistered(true);
  ASSERT_TRUE(waitFor(availability));
  EXPECT_TRUE(item.isHostAvailable());

  watcher.setHostRegistered(false);
  ASSERT_TRUE(waitFor(availability, 2));
  EXPECT_FALSE(item.isHostAvailable());
}

TEST(TrayItemTest, PropertiesDescribeTheItemAndItsMenu) {
  TrayItem item;
  item.setToolTip(QStringLiteral("Quellix"), QStringLiteral("1 App stummgeschaltet"));
  Host host(item.serviceName());

  EXPECT_EQ(host.itemProperty(QStringLiteral("Category")).toString(), "Hardware");
  EXPECT_EQ(host.itemProperty(QStringLiteral("Id")).toString(), "com.norvalin.quellix");
  EXPECT_EQ(host.itemProperty(QStringLiteral("Title")).toString(), "Quellix");
  EXPECT_EQ(host.itemProperty(QStringLiteral("Status")).toString(), "Active");
  EXPECT_FALSE(host.itemProperty(QStringLiteral("ItemIsMenu")).toBool());
  EXPECT_EQ(host.itemProperty(QStringLiteral("Menu")).value<QDBusObjectPath>().path(), kMenuPath);
  const auto toolTip =
      qdbus_cast<TrayToolTip>(host.itemProperty(QStringLiteral("ToolTip")).value<QDBusArgument>());
  EXPECT_EQ(toolTip.title, "Quellix");
  EXPECT_EQ(toolTip.text, "1 App stummgeschaltet");
  EXPECT_EQ(host.property(kMenuPath, kMenuInterface, QStringLiteral("Version")).toUInt(), 3u);
}

TEST(TrayItemTest, IntrospectionGivesTheHostsTheSignaturesTheyDecode) {
  TrayItem item;
  Host host(item.serviceName());
  const auto introspect = [&](const QString& path) {
    return host
        .call(path, QStringLiteral("org.freedesktop.DBus.Introspectable"),
              QStringLiteral("Introspect"), {})
        .arguments()
        .value(0)
        .toString();
  };

  const QString itemXml = introspect(kItemPath);
  for (const char* expected :
       {R"xml(<property name="IconPixmap" type="a(iiay)" access="read")xml",
        R"xml(<property name="ToolTip" type="(sa(iiay)ss)" access="read")xml",
        R"xml(<property name="Menu" type="o" access="read")xml",
        R"xml(<method name="Activate">)xml", R"xml(<method name="Scroll">)xml",
        R"xml(<signal name="NewIcon">)xml"}) {
    EXPECT_TRUE(itemXml.contains(QLatin1String(expected))) << expected;
  }
  const QString menuXml = introspect(kMenuPath);
  for (const char* expected :
       {R"xml(<arg name="layout" type="(ia{sv}av)" direction="out"/>)xml",
        R"xml(<arg name="events" type="a(isvu)" direction="in"/>)xml",
        R"xml(<arg name="updatedProps" type="a(ia{sv})" direction="out"/>)xml",
        R"xml(<arg name="removedProps" type="a(ias)" direction="out"/>)xml",
        R"xml(<property name="Version" type="u" access="read")xml"}) {
    EXPECT_TRUE(menuXml.contains(QLatin1String(expected))) << expected;
  }
}

TEST(TrayItemTest, ClicksAndScrollsReachTheProgram) {
  TrayItem item;
  QSignalSpy activated(&item, &TrayItem::activated);
  QSignalSpy scrolled(&item, &TrayItem::scrolled);
  Host host(item.serviceName());

  host.call(kItemPath, kItemInterface, QStringLiteral("Activate"), {120, 340});
  host.call(kItemPath, kItemInterface, QStringLiteral("Activate"), {0, 0});
  host.call(kItemPath, kItemInterface, QStringLiteral("Scroll"), {-1, QStringLiteral("vertical")});
  host.call(kItemPath, kItemInterface, QStringLiteral("Scroll"),
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

TEST(TrayItemTest, TheSymbolPicksTheThemeIconAndSendsPicturesInNetworkByteOrder) {
  TrayItem item;
  item.setSymbol(QStringLiteral("speaker.wave.2.fill"), uniformIcon(QColor(0x11, 0x22, 0x33)));
  Host host(item.serviceName());
  auto newIcon = host.follow(kItemPath, kItemInterface, QStringLiteral("NewIcon"));
  auto newToolTip = host.follow(kItemPath, kItemInterface, QStringLiteral("NewToolTip"));
  QSignalSpy iconChanged(newIcon.get(), &DBusSignalRecorder::received);
  QSignalSpy toolTipChanged(newToolTip.get(), &DBusSignalRecorder::received);

  EXPECT_EQ(host.itemProperty(QStringLiteral("IconName")).toString(), "audio-volume-high-symbolic");
  const auto pixmaps = qdbus_cast<TrayIconPixmapList>(
      host.itemProperty(QStringLiteral("IconPixmap")).value<QDBusArgument>());
  ASSERT_EQ(pixmaps.size(), 5);
  for (const auto& pixmap : pixmaps) {
    EXPECT_EQ(pixmap.width, pixmap.height);
    ASSERT_EQ(pixmap.bytes.size(), pixmap.width * pixmap.height * 4);
    EXPECT_EQ(pixmap.bytes.left(4), QByteArray::fromHex("ff112233")) << pixmap.width;
  }
  EXPECT_EQ(pixmaps.first().width, 16);
  EXPECT_EQ(pixmaps.last().width, 48);

  item.setSymbol(QStringLiteral("speaker.slash.fill"), uniformIcon(Qt::black));
  ASSERT_TRUE(waitFor(iconChanged));
  EXPECT_EQ(host.itemProperty(QStringLiteral("IconName")).toString(),
            "audio-volume-muted-symbolic");

  // The same symbol again tells the host nothing: the tooltip's signal, sent after it,
  // arrives with no icon signal before it.
  item.setSymbol(QStringLiteral("speaker.slash.fill"), uniformIcon(Qt::black));
  item.setToolTip(QStringLiteral("Quellix"), QString());
  ASSERT_TRUE(waitFor(toolTipChanged));
  EXPECT_EQ(iconChanged.size(), 1);
}

TEST(TrayItemTest, SymbolPicturesComeFromTheSymbolDirectory) {
  QTemporaryDir directory;
  QFile svg(directory.filePath(QStringLiteral("speaker.slash.fill.svg")));
  ASSERT_TRUE(svg.open(QIODevice::WriteOnly));
  svg.write(R"(<svg xmlns="http://www.w3.org/2000/svg" width="16" height="16">)"
            R"(<rect x="0" y="0" width="16" height="16" fill="#000"/></svg>)");
  svg.close();

  TrayItem item;
  item.setSymbolDirectory(directory.path());
  item.setSymbol(QStringLiteral("speaker.slash.fill"));
  Host host(item.serviceName());

  const auto pixmaps = qdbus_cast<TrayIconPixmapList>(
      host.itemProperty(QStringLiteral("IconPixmap")).value<QDBusArgument>());
  ASSERT_EQ(pixmaps.size(), 5);
  EXPECT_EQ(pixmaps.at(4).width, 48);
  EXPECT_EQ(pixmaps.at(4).bytes.left(4), QByteArray::fromHex("ff000000"));
}

TEST(TrayItemTest, TheMenuLayoutCarriesTheEntriesAndAClickTriggersOne) {
  TrayItem item;
  item.setMenuEntries({{.id = "panel", .label = "Quellix öffnen"},
                       TrayMenuEntry::separator(),
                       {.id = "about", .label = "Über_Quellix", .enabled = false},
                       {.id = "quit", .label = "Beenden"}});
  QSignalSpy triggered(&item, &TrayItem::menuEntryTriggered);
  Host host(item.serviceName());

  const auto root = host.layout(0);
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

  const auto single = host.layout(panel.id);
  EXPECT_EQ(single.id, panel.id);
  EXPECT_TRUE(single.children.isEmpty());
  EXPECT_EQ(
      host.call(kMenuPath, kMenuInterface, QStringLiteral("GetLayout"), {4711, -1, QStringList()})
          .type(),
      QDBusMessage::ErrorMessage);

  // A disabled entry and a separator do nothing; an unknown entry is an error.
  host.click(about.id);
  host.click(root.children[1].id);
  EXPECT_EQ(host.click(4711).type(), QDBusMessage::ErrorMessage);
  host.click(root.children[3].id);
  host.click(panel.id);
  ASSERT_EQ(triggered.size(), 2);
  EXPECT_EQ(triggered.at(0).at(0).toString(), "quit");
  EXPECT_EQ(triggered.at(1).at(0).toString(), "panel");
}

TEST(TrayItemTest, ChangedEntriesKeepTheirIdsAndTellTheHostWhatChanged) {
  TrayItem item;
  item.setMenuEntries(
      {{.id = "panel", .label = "Quellix öffnen"}, {.id = "quit", .label = "Beenden"}});
  Host host(item.serviceName());
  auto layoutUpdated = host.follow(kMenuPath, kMenuInterface, QStringLiteral("LayoutUpdated"));
  auto propertiesUpdated =
      host.follow(kMenuPath, kMenuInterface, QStringLiteral("ItemsPropertiesUpdated"));
  QSignalSpy layoutSpy(layoutUpdated.get(), &DBusSignalRecorder::received);
  QSignalSpy propertiesSpy(propertiesUpdated.get(), &DBusSignalRecorder::received);
  uint firstRevision = 0;
  const auto before = host.layout(0, &firstRevision);

  item.setMenuEntries({{.id = "panel", .label = "Quellix öffnen", .enabled = false},
                       {.id = "quit", .label = "Beenden"}});
  ASSERT_TRUE(waitFor(propertiesSpy));
  EXPECT_EQ(layoutSpy.size(), 0);

  item.setMenuEntries({{.id = "update", .label = "Update verfügbar"},
                       {.id = "panel", .label = "Quellix öffnen"},
                       {.id = "quit", .label = "Beenden"}});
  ASSERT_TRUE(waitFor(layoutSpy));
  uint secondRevision = 0;
  const auto after = host.layout(0, &secondRevision);
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
        Logger::installSink(sink);
        TrayItem item;
        const auto messages = sink->messages("TrayItem");
        const bool said = messages.size() == 1 && messages[0].starts_with("No session bus");
        std::exit(said && !item.isHostAvailable() && item.serviceName().isEmpty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace quellix

// A session bus of the tests' own: the item and the watchers must not meet a desktop's real
// tray. The daemon ends with this process, also when a test crashes it.
class PrivateSessionBus {
 public:
  explicit PrivateSessionBus(const QString& socketPath)
      : address_("unix:path=" + socketPath.toStdString()) {
    int output[2];
    if (::pipe(output) != 0) {
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(output[1], STDOUT_FILENO);
      const std::string addressArgument = "--address=" + address_;
      ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address=1",
               addressArgument.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(output[1]);
    // The daemon prints its address once it accepts connections.
    pollfd ready{.fd = output[0], .events = POLLIN};
    char byte = 0;
    started_ = pid_ > 0 && ::poll(&ready, 1, quellix::kDeadlineMs) == 1 &&
               ::read(output[0], &byte, 1) == 1;
    ::close(output[0]);
  }
  ~PrivateSessionBus() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  bool started() const { return started_; }
  const std::string& address() const { return address_; }

 private:
  std::string address_;
  pid_t pid_ = -1;
  bool started_ = false;
};

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();
  }
  QTemporaryDir runtime;
  PrivateSessionBus bus(runtime.filePath(QStringLiteral("bus")));
  if (!bus.started()) {
    std::fprintf(stderr, "dbus-daemon did not start\n");
    return 1;
  }
  // Qt connects to the session bus on first use: the address must be set before.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
  ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
