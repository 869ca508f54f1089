#include "audio/pulse/PulseBackend.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "audio/CoreAudioSupport.h"
#include "harness/ServerTest.h"
#include "harness/TestPlayerProcess.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix {
namespace {

using testing::SoundServer;
using testing::TestPlayerProcess;

const AudioObjectPropertyAddress kVolume{kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                                         kAudioDevicePropertyScopeOutput, 0};
const AudioObjectPropertyAddress kMute{kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput,
                                       0};

// Counts the calls of one listener registration.
struct ListenerProbe {
  ListenerProbe(AudioHardware& hardware, AudioObjectID object, AudioObjectPropertyAddress address,
                MainQueue& queue)
      : block(makeListenerBlock([this](UInt32, const AudioObjectPropertyAddress*) { ++calls; })) {
    EXPECT_EQ(hardware.AudioObjectAddPropertyListenerBlock(object, &address, &queue, block), 0)
        << describe(address);
  }
  AudioObjectPropertyListenerBlock block;
  int calls = 0;
};

class PulseBackendTest : public testing::ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    connectBackend();
    ASSERT_TRUE(backend->isConnected());
  }

  // The process object whose PID is `pid`, if the backend lists one.
  std::optional<AudioObjectID> processObject(pid_t pid) {
    try {
      for (const AudioObjectID object : readProcessList(*hardware)) {
        if (read<SInt32>(*hardware, object, globalAddress(kAudioProcessPropertyPID), 0) == pid) {
          return object;
        }
      }
    } catch (const TextError&) {
    }
    return std::nullopt;
  }

  AudioObjectID deviceNamed(const std::string& uid) {
    for (const AudioObjectID device : readDeviceList(*hardware)) {
      if (read(*hardware, device, globalAddress(kAudioDevicePropertyDeviceUID), CFString()).str() ==
          uid) {
        return device;
      }
    }
    return kAudioObjectUnknown;
  }

  AudioObjectID defaultOutput() {
    return read<UInt32>(*hardware, 1, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), 0);
  }
};

TEST_P(PulseBackendTest, PlayersAppearAndVanishWithTheirPIDs) {
  ListenerProbe list(*hardware, 1, globalAddress(kAudioHardwarePropertyProcessObjectList), queue);
  TestPlayerProcess first({.appID = "org.example.first"});
  TestPlayerProcess second({});
  ASSERT_TRUE(
      eventually([&] { return processObject(first.pid()) && processObject(second.pid()); }));
  EXPECT_GE(list.calls, 1);
  const AudioObjectID firstObject = *processObject(first.pid());
  EXPECT_EQ(readProcessBundleID(*hardware, firstObject), "org.example.first");
  EXPECT_EQ(
      read<UInt32>(*hardware, firstObject, globalAddress(kAudioProcessPropertyIsRunningOutput), 0),
      1u);

  const int callsBefore = list.calls;
  first.kill();
  ASSERT_TRUE(eventually([&] { return !processObject(first.pid()); }));
  // The listener's call is queued after the snapshot changes.
  EXPECT_TRUE(eventually([&] { return list.calls > callsBefore; }));
  EXPECT_TRUE(processObject(second.pid()).has_value());
  UInt32 size = 0;
  const auto pid = globalAddress(kAudioProcessPropertyPID);
  EXPECT_EQ(hardware->AudioObjectGetPropertyDataSize(firstObject, &pid, 0, nullptr, &size),
            kAudioHardwareBadObjectError);
}

TEST_P(PulseBackendTest, RunningStateFollowsCorkAndUncork) {
  TestPlayerProcess player({});
  ASSERT_TRUE(eventually([&] { return processObject(player.pid()).has_value(); }));
  const AudioObjectID object = *processObject(player.pid());
  auto flag = [&](AudioObjectPropertySelector selector) {
    return read<UInt32>(*hardware, object, globalAddress(selector), 0);
  };
  // PipeWire reports a new stream corked until it starts running.
  ASSERT_TRUE(eventually([&] { return flag(kAudioProcessPropertyIsRunningOutput) == 1; }));
  ListenerProbe running(*hardware, object, globalAddress(kAudioProcessPropertyIsRunning), queue);
  ListenerProbe runningOutput(*hardware, object,
                              globalAddress(kAudioProcessPropertyIsRunningOutput), queue);

  player.command("cork");
  ASSERT_TRUE(eventually([&] { return flag(kAudioProcessPropertyIsRunningOutput) == 0; }));
  EXPECT_EQ(flag(kAudioProcessPropertyIsRunning), 0u);
  EXPECT_TRUE(eventually([&] { return running.calls >= 1 && runningOutput.calls >= 1; }));
  EXPECT_EQ(processObject(player.pid()), object) << "a corked stream keeps its process object";

  const int runningCalls = running.calls;
  const int runningOutputCalls = runningOutput.calls;
  player.command("uncork");
  ASSERT_TRUE(eventually([&] { return flag(kAudioProcessPropertyIsRunningOutput) == 1; }));
  EXPECT_TRUE(eventually(
      [&] { return running.calls > runningCalls && runningOutput.calls > runningOutputCalls; }));
}

TEST_P(PulseBackendTest, VolumeAndMuteRoundTripAndOutsideChangesReachListeners) {
  const AudioObjectID sink = deviceNamed("out1");
  ASSERT_NE(sink, kAudioObjectUnknown);
  EXPECT_TRUE(hardware->AudioObjectHasProperty(sink, &kVolume));
  ListenerProbe volume(*hardware, sink, kVolume, queue);
  ListenerProbe mute(*hardware, sink, kMute, queue);

  write<Float32>(*hardware, sink, kVolume, 0.3f);
  ASSERT_TRUE(eventually(
      [&] { return std::abs(read<Float32>(*hardware, sink, kVolume, 0) - 0.3f) < 0.001f; }));
  EXPECT_TRUE(eventually([&] { return volume.calls >= 1; })) << "our own change fires too";
  write<UInt32>(*hardware, sink, kMute, 1);
  ASSERT_TRUE(eventually([&] { return read<UInt32>(*hardware, sink, kMute, 0) == 1; }));

  const int volumeCalls = volume.calls;
  server->pactl({"set-sink-volume", "out1", "50%"});
  ASSERT_TRUE(eventually([&] { return volume.calls > volumeCalls; }));
  EXPECT_NEAR(read<Float32>(*hardware, sink, kVolume, 0), 0.5f, 0.001f);
  server->pactl({"set-sink-mute", "out1", "0"});
  ASSERT_TRUE(eventually([&] { return read<UInt32>(*hardware, sink, kMute, 1) == 0; }));
  EXPECT_TRUE(eventually([&] { return mute.calls >= 2; }));
}

TEST_P(PulseBackendTest, SwitchingTheDefaultSinkFiresTheDefaultOutputListener) {
  ListenerProbe probe(*hardware, 1, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                      queue);
  EXPECT_EQ(defaultOutput(), deviceNamed("out1"));
  ASSERT_TRUE(server->setDefaultSink("out2"));
  ASSERT_TRUE(eventually([&] { return defaultOutput() == deviceNamed("out2"); }));
  EXPECT_TRUE(eventually([&] { return probe.calls >= 1; }));
}

TEST_P(PulseBackendTest, SurvivesTheServerGoingAwayAndComingBack) {
  ListenerProbe list(*hardware, 1, globalAddress(kAudioHardwarePropertyProcessObjectList), queue);
  ListenerProbe devices(*hardware, 1, globalAddress(kAudioHardwarePropertyDevices), queue);
  ListenerProbe output(*hardware, 1, globalAddress(kAudioHardwarePropertyDefaultOutputDevice),
                       queue);
  std::optional<AudioObjectID> before;
  {
    TestPlayerProcess player({});
    ASSERT_TRUE(eventually([&] { return (before = processObject(player.pid())).has_value(); }));
  }
  const AudioObjectID oldSink = deviceNamed("out1");

  server->stop();
  ASSERT_TRUE(eventually([&] { return !backend->isConnected(); }));
  UInt32 size = 0;
  const auto listAddress = globalAddress(kAudioHardwarePropertyProcessObjectList);
  EXPECT_EQ(hardware->AudioObjectGetPropertyDataSize(1, &listAddress, 0, nullptr, &size),
            kAudioHardwareNotRunningError);
  EXPECT_NE(hardware->AudioObjectSetPropertyData(oldSink, &kVolume, 0, nullptr, 4, &size), 0);
  EXPECT_TRUE(eventually([&] { return devices.calls >= 1 && output.calls >= 1; }));

  server->start();
  ASSERT_TRUE(eventually([&] { return backend->isConnected(); }));
  TestPlayerProcess player({});
  std::optional<AudioObjectID> after;
  ASSERT_TRUE(eventually([&] { return (after = processObject(player.pid())).has_value(); }));
  EXPECT_NE(*after, *before) << "objects of a new connection get new ids";
  EXPECT_NE(deviceNamed("out1"), oldSink);
  EXPECT_TRUE(eventually([&] { return devices.calls >= 2; }));
  // A session manager may set the default only after the sinks are back; it fires then.
  EXPECT_TRUE(eventually([&] { return defaultOutput() == deviceNamed("out1"); }));
  EXPECT_TRUE(eventually([&] { return output.calls >= 2; }));
}

TEST_P(PulseBackendTest, AServerThatIsNotThereAtStartIsWaitedFor) {
  hardware.reset();
  backend.reset();
  server->stop();
  logs->clear();
  connectBackend({.startupWait = std::chrono::milliseconds(300),
                  .retryInterval = std::chrono::milliseconds(200)});
  EXPECT_THROW(readProcessList(*hardware), TextError);
  UInt32 size = 0;
  const auto address = globalAddress(kAudioHardwarePropertyDevices);
  EXPECT_EQ(hardware->AudioObjectGetPropertyDataSize(1, &address, 0, nullptr, &size),
            kAudioHardwareNotRunningError);
  ListenerProbe devices(*hardware, 1, address, queue);
  const auto errors = [&] {
    const auto entries = logs->entries();
    return std::count_if(entries.begin(), entries.end(),
                         [](const LogEntry& e) { return e.level == LogLevel::error; });
  };
  EXPECT_EQ(errors(), 1);

  server->start();
  ASSERT_TRUE(eventually([&] { return backend->isConnected(); }));
  EXPECT_TRUE(eventually([&] { return devices.calls >= 1; }));
  EXPECT_NE(deviceNamed("out1"), kAudioObjectUnknown);
  EXPECT_EQ(errors(), 1) << "one line, not one per attempt";
}

QUELLIX_ON_EVERY_SERVER(PulseBackendTest);

}  // namespace
}  // namespace quellix
