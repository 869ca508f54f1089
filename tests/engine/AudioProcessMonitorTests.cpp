#include "engine/monitor/AudioProcessMonitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "audio/CoreAudioSupport.h"
#include "harness/FakeSystem.h"
#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;
using testing::FakeSystem;

class AudioProcessMonitorTest : public testing::SimTest {
 protected:
  std::shared_ptr<AudioProcessMonitor> makeMonitor() {
    auto monitor = AudioProcessMonitor::create(queue, hardware,
                                               std::make_shared<Workspace>(system.roots()), logs);
    monitor->setOnChange([this](const std::vector<AudioApp>& apps) { changes.push_back(apps); });
    return monitor;
  }

  std::vector<std::string> names(const std::vector<AudioApp>& apps) {
    std::vector<std::string> result;
    for (const auto& app : apps) {
      result.push_back(app.name);
    }
    return result;
  }

  FakeSystem system;
  std::vector<std::vector<AudioApp>> changes;
};

TEST_F(AudioProcessMonitorTest, GroupsHelperProcessesUnderTheOwningApplication) {
  system.addApplication("org.example.Browser", "Browser", "browser");
  system.addProcess({.pid = 100, .executable = "browser"});
  system.addProcess({.pid = 101, .parent = 100, .executable = "renderer"});
  system.addProcess({.pid = 102, .parent = 101, .executable = "audio-helper"});
  system.addProcess({.pid = 300, .parent = 100, .executable = "audio-service"});
  const AudioObjectID helper = sim->addProcess({.pid = 102, .runningOutput = false});
  const AudioObjectID service = sim->addProcess({.pid = 300, .runningOutput = true});
  sim->addProcess({.pid = 101, .running = false, .runningOutput = false});

  auto monitor = makeMonitor();
  monitor->refresh();
  const auto& apps = monitor->apps().get();
  ASSERT_EQ(apps.size(), 1u);
  EXPECT_EQ(apps[0].id, 100);
  EXPECT_EQ(apps[0].processObjectIDs, (std::vector<AudioObjectID>{helper, service}));
  EXPECT_TRUE(apps[0].isPlaying) << "either process playing is enough";
}

TEST_F(AudioProcessMonitorTest, ResolvesOwnersByTheRulesInOrder) {
  system.addApplication("terminal", "Terminal", "terminal");
  system.addApplication("other", "Other", "other");
  system.addProcess({.pid = 200, .executable = "terminal"});
  system.addProcess({.pid = 201, .parent = 200, .executable = "bash"});
  system.addProcess({.pid = 202, .parent = 201, .executable = "mpv"});
  system.addProcess({.pid = 210, .executable = "other"});
  system.addProcess({.pid = 220, .parent = 1, .executable = "daemon"});
  auto monitor = makeMonitor();
  Workspace workspace(system.roots());
  RunningApplications running(workspace);
  auto owner = [&](pid_t pid) {
    const auto app = monitor->resolveOwningApp(pid, running);
    return app ? app->pid : -1;
  };
  EXPECT_EQ(owner(200), 200) << "a proper application owns itself";
  EXPECT_EQ(owner(202), 200) << "nearest ancestor";
  for (const pid_t none : {220, 0, 1, 99999}) {  // 220: started by the system launcher
    EXPECT_EQ(owner(none), -1) << none;
  }

  // Entries that are no proper applications are never owners; PIDs 0 and 1 can be.
  RunningApplications fixed({{1, RunningApplication{.pid = 1, .bundleURL = "/a/init.desktop"}},
                             {5, RunningApplication{.pid = 5, .bundleURL = "/a/tool"}}});
  EXPECT_EQ(monitor->resolveOwningApp(1, fixed)->pid, 1);
  EXPECT_FALSE(monitor->resolveOwningApp(5, fixed));
}

TEST_F(AudioProcessMonitorTest, TheSoundServerQuellixAndOtherVolumeControlsAreNoRows) {
  struct Case {
    const char* what;
    pid_t pid;
    std::string executable;  // empty: unreadable, the kernel's short name counts
    std::string comm;
    std::string bundleID;
    bool listed;
  };
  const Case cases[] = {
      {"PipeWire", 700, "pipewire", "pipewire", "", false},
      {"PipeWire's pulse server, a link to it", 701, "pipewire", "pipewire-pulse", "", false},
      {"the session manager", 702, "wireplumber", "wireplumber", "", false},
      {"a system-wide PulseAudio", 703, "", "pulseaudio", "", false},
      {"pavucontrol", 704, "pavucontrol", "pavucontrol", "org.PulseAudio.pavucontrol", false},
      {"pwvucontrol", 705, "pwvucontrol", "pwvucontrol", "", false},
      {"a panel metering under the mixers' id", 706, "plasmashell", "plasmashell",
       "org.PulseAudio.pavucontrol", false},
      {"GNOME's level meters", 707, "gnome-shell", "gnome-shell", "org.gnome.VolumeControl", false},
      {"Quellix itself", ::getpid(), "quellix", "quellix", "", false},
      {"a panel playing a sound", 708, "plasmashell", "plasmashell", "org.kde.plasmashell", true},
      {"a player named like the server", 709, "pipewire-player", "pipewire-player", "", true},
  };
  for (const Case& c : cases) {
    system.addProcess({.pid = c.pid, .executable = c.executable, .comm = c.comm});
    sim->addProcess({.pid = c.pid, .bundleID = c.bundleID});
  }
  auto monitor = makeMonitor();
  monitor->refresh();
  std::vector<pid_t> listed;
  for (const AudioApp& app : monitor->apps().get()) {
    listed.push_back(app.id);
  }
  for (const Case& c : cases) {
    EXPECT_EQ(std::count(listed.begin(), listed.end(), c.pid), c.listed ? 1 : 0) << c.what;
  }
}

// Sorted ignoring case: "paplay" before "Prozess 403".
TEST_F(AudioProcessMonitorTest, NamesFallBackDownToTheProcessIDSortedIgnoringCase) {
  system.addApplication("named", "Named App", "named");
  system.addProcess({.pid = 400, .executable = "named"});
  system.addProcess({.pid = 401, .executable = "tool"});
  system.addProcess({.pid = 402, .executable = "other-tool"});
  system.addProcess({.pid = 404, .executable = "pacat"});
  sim->addProcess({.pid = 400, .applicationName = "ignored: the desktop entry names it"});
  sim->addProcess({.pid = 404, .applicationName = "paplay"});
  sim->addProcess({.pid = 401, .bundleID = "org.example.Suffix"});
  sim->addProcess({.pid = 402});
  sim->addProcess({.pid = 403});  // no /proc entry at all
  auto monitor = makeMonitor();
  monitor->refresh();
  const auto& apps = monitor->apps().get();
  EXPECT_EQ(names(apps), (std::vector<std::string>{"Named App", "other-tool", "paplay",
                                                   "Prozess 403", "Suffix"}));
  EXPECT_EQ(apps[3].key(), "pid:403");
  EXPECT_EQ(apps[4].bundleID, "org.example.Suffix");
}

TEST_F(AudioProcessMonitorTest, OnlyChangesOfAppsOrTheirObjectsReachOnChange) {
  const AudioObjectID player = sim->addProcess({.pid = 600, .bundleID = "x.player"});
  sim->addProcess({.pid = 601, .bundleID = "x.recorder", .runningOutput = false});
  auto monitor = makeMonitor();
  int appsNotifications = 0;
  auto subscription = monitor->apps().observe([&] { ++appsNotifications; });

  monitor->refresh();
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_FALSE(monitor->apps().get()[1].isPlaying) << "recording only";

  monitor->refresh();  // nothing changed
  EXPECT_EQ(changes.size(), 1u);
  EXPECT_EQ(appsNotifications, 1);

  sim->setProcessRunning(player, true, false);  // only isPlaying changes
  monitor->refresh();
  EXPECT_EQ(changes.size(), 1u);
  EXPECT_EQ(appsNotifications, 2);
  EXPECT_FALSE(monitor->apps().get()[0].isPlaying);

  sim->addProcess({.pid = 600, .bundleID = "x.player"});  // a further object of a listed app
  monitor->refresh();
  EXPECT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes.back()[0].processObjectIDs.size(), 2u);
}

TEST_F(AudioProcessMonitorTest, AFailedListReadKeepsThePreviousList) {
  sim->addProcess({.pid = 700, .bundleID = "x.app"});
  auto monitor = makeMonitor();
  monitor->refresh();
  sim->failProperty(1, kAudioHardwarePropertyProcessObjectList, Call::getPropertyDataSize, -3);
  monitor->refresh();
  EXPECT_EQ(monitor->apps().get().size(), 1u);
  EXPECT_EQ(logs->messages("AudioProcessMonitor").size(), 1u);
}

// Following the listeners shows on the sound servers; here what they miss.
TEST_F(AudioProcessMonitorTest, TheTenSecondRefreshFindsWhatNoListenerReported) {
  auto monitor = makeMonitor();
  monitor->start();
  const AudioObjectID player = sim->addProcess({.pid = 800, .bundleID = "x.player"});
  queue.drain();
  const auto running = globalAddress(kAudioProcessPropertyIsRunning);
  EXPECT_EQ(sim->listenerCount(player, running), 1u);

  // A change no listener reports shows up with the periodic refresh.
  sim->failCall(Call::addPropertyListener, -1);
  sim->removeProcess(player);
  const AudioObjectID quiet = sim->addProcess({.pid = 801, .bundleID = "x.quiet"});
  sim->clearFaults();
  sim->failProperty(1, kAudioHardwarePropertyProcessObjectList, Call::getPropertyData, -1);
  queue.drain();
  sim->clearFaults();
  EXPECT_EQ(monitor->apps().get().at(0).id, 800);
  queue.advance(AudioProcessMonitor::kRefreshInterval);
  ASSERT_EQ(monitor->apps().get().size(), 1u);
  EXPECT_EQ(sim->listenerCount(player, running), 0u) << "vanished objects lose their listeners";
  EXPECT_EQ(sim->listenerCount(quiet, running), 1u);

  std::weak_ptr<AudioProcessMonitor> weak = monitor;
  monitor.reset();
  sim->addProcess({.pid = 802});
  queue.advance(AudioProcessMonitor::kRefreshInterval * 2);
  EXPECT_TRUE(weak.expired());
}

TEST_F(AudioProcessMonitorTest, AFailedListListenerIsLoggedAndThePeriodicRefreshStillRuns) {
  sim->failProperty(1, kAudioHardwarePropertyProcessObjectList, Call::addPropertyListener, -8);
  auto monitor = makeMonitor();
  monitor->start();
  EXPECT_EQ(logs->messages("AudioProcessMonitor").size(), 1u);
  sim->addProcess({.pid = 900, .bundleID = "x.late"});
  queue.drain();
  EXPECT_TRUE(monitor->apps().get().empty());
  queue.advance(AudioProcessMonitor::kRefreshInterval);
  EXPECT_EQ(monitor->apps().get().size(), 1u);
}

}  // namespace
}  // namespace quellix
