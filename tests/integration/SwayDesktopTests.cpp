#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <fstream>

#include "harness/AccessibleUi.h"
#include "harness/DBusClient.h"
#include "harness/LevelMeter.h"
#include "harness/SessionBus.h"
#include "harness/SoundServer.h"
#include "harness/TestPlayerProcess.h"

namespace quellix {
namespace {

namespace fs = std::filesystem;
using testing::ChildProcess;
using testing::runProgram;

constexpr int kScreenWidth = 1280;
constexpr int kScreenHeight = 720;
constexpr int kBarHeight = 30;
constexpr auto kStartTimeout = std::chrono::seconds(20);
const QString kPanelTitle = QStringLiteral("Quellix");
const QRect kBar(0, 0, kScreenWidth, kBarHeight);
constexpr int kNarrowestMenu = 80;

// sway refuses to run as root. Where the suite does, the whole test runs as nobody from here
// on, so that the runtime folder, the buses and every program started belong to that user.
void leaveRoot() {
  if (::geteuid() != 0) {
    return;
  }
  const passwd* nobody = ::getpwnam("nobody");
  ASSERT_NE(nobody, nullptr) << "no user nobody to run sway as";
  ASSERT_EQ(::setgroups(0, nullptr), 0);
  ASSERT_EQ(::setgid(nobody->pw_gid), 0);
  ASSERT_EQ(::setuid(nobody->pw_uid), 0);
}

bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  return testing::eventually(
      condition, [] { QCoreApplication::processEvents(); }, timeout);
}

// sway names its display after the first free number.
std::optional<fs::path> waylandDisplayIn(const fs::path& folder) {
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.is_socket() && entry.path().filename().string().starts_with("wayland-")) {
      return entry.path();
    }
  }
  return std::nullopt;
}

QRect rectOf(const QJsonValue& value) {
  const QJsonObject rect = value.toObject();
  return {rect[QStringLiteral("x")].toInt(), rect[QStringLiteral("y")].toInt(),
          rect[QStringLiteral("width")].toInt(), rect[QStringLiteral("height")].toInt()};
}

// Where sway shows the window or workspace named `name`, if it does.
std::optional<QRect> onScreen(const QString& name) {
  std::function<std::optional<QRect>(const QJsonObject&)> find =
      [&](const QJsonObject& node) -> std::optional<QRect> {
    if (node[QStringLiteral("name")].toString() == name) {
      return rectOf(node[QStringLiteral("rect")]);
    }
    for (const char* children : {"nodes", "floating_nodes"}) {
      for (const QJsonValue& child : node[QLatin1String(children)].toArray()) {
        if (auto rect = find(child.toObject())) {
          return rect;
        }
      }
    }
    return std::nullopt;
  };
  const std::string tree = runProgram({"swaymsg", "-r", "-t", "get_tree"});
  return find(QJsonDocument::fromJson(QByteArray::fromStdString(tree)).object());
}

void pointerAt(QPoint where) {
  runProgram({"swaymsg", "seat", "-", "cursor", "set", std::to_string(where.x()),
              std::to_string(where.y())});
}

// One command, so that the release follows at once: a menu that opens on the press takes a
// late release for a choice.
void click(const std::string& button) {
  runProgram({"swaymsg", "seat - cursor press " + button + ", seat - cursor release " + button});
}

// The smallest rectangle in `area` holding every pixel that differs between two screenshots.
QRect changedIn(const QRect& area, const QImage& before, const QImage& after) {
  QRect changed;
  const QRect common = area & before.rect() & after.rect();
  for (int y = common.top(); y <= common.bottom(); ++y) {
    for (int x = common.left(); x <= common.right(); ++x) {
      if (before.pixel(x, y) != after.pixel(x, y)) {
        changed |= QRect(x, y, 1, 1);
      }
    }
  }
  return changed;
}

// The program under sway with waybar's tray at the top of a headless screen, a virtual
// pointer driven through sway, and a private sound server with one player.
TEST(SwayDesktopTest, TrayIconPanelRowWheelAndMenu) {
  for (const std::string program : {"sway", "swaymsg", "waybar", "grim"}) {
    if (QStandardPaths::findExecutable(QString::fromStdString(program)).isEmpty()) {
      GTEST_SKIP() << program << " is not installed";
    }
  }
  leaveRoot();
  ASSERT_FALSE(HasFatalFailure());
  ASSERT_EQ(::access(QUELLIX_BINARY, X_OK), 0) << "this user cannot run " << QUELLIX_BINARY;
  testing::SoundServer server(testing::SoundServer::Kind::pulseAudio);
  testing::SessionBus bus;
  static int argc = 1;
  static char name[] = "sway_desktop_tests";
  static char* argv[] = {name, nullptr};
  QCoreApplication application(argc, argv);

  const fs::path dir = server.runtimeDir();
  ::setenv("HOME", dir.c_str(), 1);
  std::ofstream(dir / "waybar.json")
      << R"({"position": "top", "height": )" << kBarHeight << R"(, "modules-right": ["tray"]})";
  std::ofstream(dir / "sway.conf") << "output HEADLESS-1 resolution " << kScreenWidth << "x"
                                   << kScreenHeight << "\nexec waybar -c " << dir / "waybar.json"
                                   << "\n";
  ::setenv("WLR_BACKENDS", "headless", 1);
  ::setenv("WLR_LIBINPUT_NO_DEVICES", "1", 1);
  ::setenv("WLR_RENDERER", "pixman", 1);
  ::unsetenv("DISPLAY");
  ::unsetenv("WAYLAND_DISPLAY");
  ::setenv("SWAYSOCK", (dir / "sway.sock").c_str(), 1);
  ChildProcess sway({"sway", "-c", (dir / "sway.conf").string()},
                    {.outputFile = (dir / "sway.log").string()});
  std::optional<fs::path> display;
  // The bar is up once the workspace leaves it room.
  ASSERT_TRUE(eventually(
      [&] {
        display = waylandDisplayIn(dir);
        const auto workspace =
            fs::exists(dir / "sway.sock") ? onScreen(QStringLiteral("1")) : std::nullopt;
        return display && workspace && workspace->top() == kBarHeight;
      },
      kStartTimeout))
      << "sway or waybar did not start, see " << dir / "sway.log";
  ::setenv("WAYLAND_DISPLAY", display->c_str(), 1);
  ChildProcess pointer({QUELLIX_VIRTUAL_POINTER}, {.pipeStdin = true, .pipeStdout = true});
  ASSERT_EQ(pointer.readLine(std::chrono::seconds(10)), "ready");
  const auto screenshot = [&] {
    runProgram({"grim", (dir / "screen.png").string()});
    return QImage(QString::fromStdString((dir / "screen.png").string()));
  };
  const QImage emptyBar = screenshot();

  // mpv's own desktop entry names its row.
  testing::TestPlayerProcess player({.name = "com.example.alpha", .appID = "com.example.alpha"});
  fs::create_directories(dir / "config" / "quellix");
  std::ofstream(dir / "config" / "quellix" / "preferences.json")
      << R"({"onboardingCompleted": true})";
  ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
  ::setenv("QT_QPA_PLATFORM", "wayland", 1);
  ::setenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1", 1);
  ChildProcess quellix({QUELLIX_BINARY}, {.outputFile = (dir / "quellix.log").string()});

  // The icon appears in the bar's tray.
  QRect icon;
  ASSERT_TRUE(eventually(
      [&] { return (icon = changedIn(kBar, emptyBar, screenshot())).width() > 8; }, kStartTimeout))
      << "no icon in the bar";
  EXPECT_GT(icon.left(), kScreenWidth / 2) << "the icon is not in the tray on the right";

  // A left click opens the panel at the bar's edge under the icon, inside the screen.
  pointerAt(icon.center());
  click("button1");
  std::optional<QRect> panel;
  ASSERT_TRUE(eventually([&] { return (panel = onScreen(kPanelTitle)).has_value(); }))
      << "no panel appeared";
  ASSERT_TRUE(eventually([&] {
    panel = onScreen(kPanelTitle);
    return panel && panel->top() == kBarHeight;
  })) << "the panel is not at the bar's edge";
  EXPECT_LE(panel->left(), icon.center().x());
  EXPECT_GE(panel->right(), icon.center().x());
  EXPECT_LE(panel->right(), kScreenWidth - 1);
  EXPECT_LE(panel->bottom(), kScreenHeight - 1);

  // A click on the player's row silences it at the output.
  testing::AccessibleUi ui(testing::connectPrivately());
  std::optional<testing::AccessibleUi::Element> row;
  ASSERT_TRUE(eventually([&] {
    return (row = ui.showingButton(quellix.pid(), QStringLiteral("mpv"),
                                   {QStringLiteral(" stummschalten")}))
        .has_value();
  })) << "the panel lists no player";
  EXPECT_GT(testing::settledLevel(dir, "out1.monitor"), testing::kHeardAboveDbfs);
  // Qt knows no window positions on Wayland: its accessible extents are the window's own.
  pointerAt(panel->topLeft() + row->extents.center());
  click("button1");
  EXPECT_LT(testing::settledLevel(dir, "out1.monitor"), testing::kSilentBelowDbfs)
      << "the player is still heard";

  // Another click on the icon closes the panel; the wheel turns the master volume up 5 % a
  // notch.
  pointerAt(icon.center());
  click("button1");
  EXPECT_TRUE(eventually([&] { return !onScreen(kPanelTitle); })) << "the panel stayed";
  server.pactl({"set-sink-volume", "out1", "50%"});
  // sway turns the press of this button into one notch of the wheel (and its release into
  // another).
  runProgram({"swaymsg", "seat", "-", "cursor", "press", "button4"});
  EXPECT_TRUE(eventually([&] { return server.volumePercent("out1") == 55; }))
      << "the master volume is at " << server.volumePercent("out1") << " %";

  // A right click opens the menu (waybar's own popup, which takes no keys); its first entry
  // opens the panel. Left of the icon, which lights up, only the menu changes the screen, and
  // the icon's tooltip, narrower than the menu's entries.
  const QImage noMenu = screenshot();
  click("button3");
  const QRect leftOfIcon(0, 0, icon.left() - 1, kScreenHeight);
  QRect menu;
  ASSERT_TRUE(eventually([&] {
    menu = changedIn(leftOfIcon, noMenu, screenshot());
    return menu.height() > kBarHeight && menu.width() > kNarrowestMenu;
  })) << "no menu appeared";
  ASSERT_FALSE(onScreen(kPanelTitle)) << "the right click opened the panel";
  // The first of three entries and a separator.
  pointerAt({menu.center().x(), menu.top() + menu.height() / 5});
  click("button1");
  EXPECT_TRUE(eventually([&] { return onScreen(kPanelTitle).has_value(); }))
      << "the menu did not open the panel";
}

}  // namespace
}  // namespace quellix
