#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QImage>
#include <QRect>
#include <QStandardPaths>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness/DesktopSession.h"
#include "harness/LevelMeter.h"

namespace quellix {
namespace {

using testing::ChildProcess;
using testing::DesktopSession;
using testing::XServer;

constexpr auto kStartTimeout = std::chrono::seconds(30);
constexpr auto kExitTimeout = std::chrono::seconds(10);
// The panels sit at the top of the screen, no higher than this.
const XServer::Geometry kPanelStrip{0, 0, XServer::kWidth, 48};
const char* const kPanelTitle = "Quellix";

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "panel_desktop_tests";
  static char* argv[] = {name, nullptr};
  static auto* app = new QCoreApplication(argc, argv);
  return *app;
}

// xfconf's stored form: one panel along the top holding only the tray.
void configureXfce(const std::filesystem::path& config) {
  const auto folder = config / "xfce4" / "xfconf" / "xfce-perchannel-xml";
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "xfce4-panel.xml") << R"(<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value="28"/>
      <property name="plugin-ids" type="array"><value type="int" value="1"/></property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray"/>
  </property>
</channel>
)";
}

// One panel along the top with the status notifier area, and an icon theme with nothing but
// hicolor: the item must bring its icons itself.
void configureLxqt(const std::filesystem::path& config) {
  std::filesystem::create_directories(config / "lxqt");
  std::ofstream(config / "lxqt" / "panel.conf")
      << "[General]\npanels=panel1\n\n[panel1]\nplugins=statusnotifier\nposition=Top\n"
         "desktop=0\n\n[statusnotifier]\nalignment=Right\ntype=statusnotifier\n";
  std::ofstream(config / "lxqt" / "lxqt.conf") << "[General]\nicon_theme=hicolor\n";
}

struct Panel {
  const char* name;
  const char* windowClass;                         // of the panel's window
  std::vector<std::vector<std::string>> programs;  // started in this order
  void (*configure)(const std::filesystem::path& config);
};

const Panel kPanels[] = {
    {"xfce",
     "xfce4-panel",
     {{"/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd"}, {"xfwm4"}, {"xfce4-panel"}},
     configureXfce},
    {"lxqt", "lxqt-panel", {{"openbox"}, {"lxqt-panel"}}, configureLxqt},
};

void PrintTo(const Panel& panel, std::ostream* out) {
  *out << panel.name;
}

// The bounding box of the pixels whose lightness differs by a quarter or more between two
// pictures of the same area: a picture the user can see, not a button's hover shade.
QRect changedArea(const QImage& before, const QImage& after) {
  QRect area;
  for (int y = 0; y < std::min(before.height(), after.height()); ++y) {
    for (int x = 0; x < std::min(before.width(), after.width()); ++x) {
      if (std::abs(qGray(before.pixel(x, y)) - qGray(after.pixel(x, y))) >= 64) {
        area |= QRect(x, y, 1, 1);
      }
    }
  }
  return area;
}

int masterVolumePercent(const testing::SoundServer& server) {
  const std::string volume = server.pactl({"get-sink-volume", "@DEFAULT_SINK@"});
  const auto percent = volume.find('%');
  const auto start = volume.rfind(' ', percent);
  return percent == std::string::npos ? -1 : std::stoi(volume.substr(start + 1, percent));
}

// The real program in a real panel: the icon is drawn, a click on it opens the panel beside
// it, a row click silences its application at the output, the wheel turns the master volume,
// and the panel's menu quits.
class PanelDesktopTest : public ::testing::TestWithParam<Panel> {
 protected:
  void SetUp() override {
    for (const auto& program : GetParam().programs) {
      if (!std::filesystem::exists(program.front()) &&
          QStandardPaths::findExecutable(QString::fromStdString(program.front())).isEmpty()) {
        GTEST_SKIP() << program.front() << " is not installed";
      }
    }
    application();
    session_ = std::make_unique<DesktopSession>(DesktopSession::Options{.trayWatcher = false});
    GetParam().configure(session_->configHome());
    for (const auto& program : GetParam().programs) {
      const auto log = session_->scratchDir() /
                       (std::filesystem::path(program.front()).filename().string() + ".log");
      desktop_.push_back(
          std::make_unique<ChildProcess>(program, ChildProcess::Options{.outputFile = log}));
    }
    session_->play("com.example.alpha", "out1", 440.0);
  }

  void TearDown() override {
    quellix_.reset();
    while (!desktop_.empty()) {
      desktop_.pop_back();
    }
    session_.reset();
  }

  bool panelShown() { return session_->display().visibleWindow(kPanelTitle).has_value(); }

  // The strip once the panel's window is there and the strip stopped changing.
  QImage settledStrip() {
    const bool mapped = session_->eventually(
        [&] {
          try {
            testing::runProgram({"xdotool", "search", "--onlyvisible", "--limit", "1", "--class",
                                 GetParam().windowClass});
            return true;
          } catch (const std::runtime_error&) {
            return false;
          }
        },
        kStartTimeout);
    if (!mapped) {
      return {};
    }
    QImage last;
    QImage settled;
    session_->eventually(
        [&] {
          QImage now = session_->display().screenshot(kPanelStrip);
          std::this_thread::sleep_for(std::chrono::milliseconds(500));
          const bool same = !last.isNull() && now == last;
          last = std::move(now);
          if (same) {
            settled = last;
          }
          return same;
        },
        kStartTimeout);
    return settled;
  }

  std::unique_ptr<DesktopSession> session_;
  std::vector<std::unique_ptr<ChildProcess>> desktop_;
  std::unique_ptr<ChildProcess> quellix_;
};

TEST_P(PanelDesktopTest, IconClickRowWheelAndMenu) {
  const QImage before = settledStrip();
  ASSERT_FALSE(before.isNull()) << "the panel never settled";
  quellix_ = session_->startQuellix();

  // The icon is drawn in the panel: pixels there change, in an area of icon size.
  QRect icon;
  ASSERT_TRUE(session_->eventually(
      [&] {
        icon = changedArea(before, session_->display().screenshot(kPanelStrip));
        return icon.width() >= 8 && icon.height() >= 8;
      },
      kStartTimeout))
      << "no icon appeared in the panel";
  EXPECT_LE(icon.width(), 48);
  const QPoint centre = icon.center();

  // A click on it opens the panel beside the icon, inside the screen.
  session_->display().click(centre.x(), centre.y());
  ASSERT_TRUE(session_->eventually([&] { return panelShown(); })) << "no panel appeared";
  const auto panel = session_->display().visibleWindow(kPanelTitle);
  EXPECT_GE(panel->x, 0);
  EXPECT_GE(panel->y, 0);
  EXPECT_LE(panel->x + panel->width, XServer::kWidth);
  EXPECT_LE(panel->y + panel->height, XServer::kHeight);
  EXPECT_LE(panel->y, kPanelStrip.height + 32) << "the panel is not below the icon";
  EXPECT_LE(std::abs(panel->x + panel->width / 2 - centre.x()), panel->width)
      << "the panel is far from the icon";

  // A row click silences that application at the output.
  std::optional<testing::AccessibleUi::Element> row;
  ASSERT_TRUE(session_->eventually([&] {
    row = session_->ui().showingControl(quellix_->pid(), QStringLiteral("alpha"),
                                        {QStringLiteral(" stummschalten")});
    return row.has_value();
  })) << "the panel does not list the player";
  EXPECT_GT(session_->server().level("out1"), testing::kHeardAboveDbfs);
  session_->display().click(row->extents.center().x(), row->extents.center().y());
  EXPECT_TRUE(session_->eventually([&] {
    return session_->server().level("out1", std::chrono::milliseconds(600)) <
           testing::kSilentBelowDbfs;
  })) << "the player is still heard: "
      << session_->server().lastLevels();

  // Closed again by the icon, then one notch of the wheel on it: +5 %.
  session_->display().click(centre.x(), centre.y());
  EXPECT_TRUE(session_->eventually([&] { return !panelShown(); })) << "the panel stayed open";
  session_->server().pactl({"set-sink-volume", "@DEFAULT_SINK@", "50%"});
  session_->display().click(centre.x(), centre.y(), 4);
  EXPECT_TRUE(session_->eventually([&] { return masterVolumePercent(session_->server()) == 55; }))
      << "the master volume is at " << masterVolumePercent(session_->server()) << " %";

  // The right button shows the menu; its last entry, "Beenden", ends the program.
  const QImage beforeMenu = session_->display().screenshot({0, 0, XServer::kWidth, 240});
  session_->display().click(centre.x(), centre.y(), 3);
  ASSERT_TRUE(session_->eventually([&] {
    return changedArea(beforeMenu, session_->display().screenshot({0, 0, XServer::kWidth, 240}))
               .height() > kPanelStrip.height;
  })) << "no menu appeared";
  testing::runProgram({"xdotool", "key", "Up", "Return"});
  EXPECT_EQ(quellix_->wait(kExitTimeout), 0) << "the menu's last entry did not end the program";
}

INSTANTIATE_TEST_SUITE_P(Panels, PanelDesktopTest, ::testing::ValuesIn(kPanels),
                         [](const auto& panel) { return std::string(panel.param.name); });

}  // namespace
}  // namespace quellix
