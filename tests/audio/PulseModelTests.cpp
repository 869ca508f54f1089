#include "audio/pulse/PulseModel.h"

#include <gtest/gtest.h>

namespace quellix::pulse {
namespace {

StreamInfo stream(std::uint32_t index, std::uint32_t client, bool corked = false,
                  Properties properties = {}) {
  return {.index = index, .client = client, .corked = corked, .properties = std::move(properties)};
}

ClientInfo client(std::uint32_t index, const std::string& pid, Properties extra = {}) {
  extra["application.process.id"] = pid;
  return {.index = index, .properties = std::move(extra)};
}

SinkInfo sink(std::uint32_t index, const std::string& name,
              std::vector<std::uint32_t> volumes = {kVolumeNorm, kVolumeNorm}) {
  return {.index = index, .name = name, .sampleRate = 48000, .channelVolumes = std::move(volumes)};
}

TEST(PulseModel, ARemoveBeforeTheInfoReplyDoesNotBringTheObjectBack) {
  PulseModel model;
  model.applyClient(client(1, "100"));
  model.remove(PulseModel::Kind::sinkInput,
               7);                     // the server removed it while our query was in flight
  model.applySinkInput(stream(7, 1));  // the late reply
  EXPECT_TRUE(model.snapshot(true).processes.empty());

  // A new object that reuses the index is announced first and then counts.
  model.announce(PulseModel::Kind::sinkInput, 7);
  model.applySinkInput(stream(7, 1));
  EXPECT_EQ(model.snapshot(true).processes.size(), 1u);
}

TEST(PulseModel, LateRepliesStayOutAfterAnyNumberOfRemovals) {
  // A long session removes streams without end; what is kept against late replies is
  // bounded, and covers the recent ones.
  PulseModel model;
  model.applyClient(client(1, "100"));
  constexpr std::uint32_t kRemovals = 100000;
  for (std::uint32_t index = 0; index < kRemovals; ++index) {
    model.announce(PulseModel::Kind::sinkInput, index);
    model.applySinkInput(stream(index, 1));
    model.remove(PulseModel::Kind::sinkInput, index);
  }
  for (std::uint32_t index = kRemovals - 16; index < kRemovals; ++index) {
    model.applySinkInput(stream(index, 1));
  }
  EXPECT_TRUE(model.snapshot(true).processes.empty());
}

TEST(PulseModel, AStreamBeforeItsClientIsAttributedOnceTheClientArrives) {
  PulseModel model;
  model.applySinkInput(stream(3, 9));
  EXPECT_TRUE(model.snapshot(true).processes.empty());
  model.applyClient(client(
      9, "4242", {{"application.id", "org.example.player"}, {"application.name", "paplay"}}));
  const auto snapshot = model.snapshot(true);
  ASSERT_EQ(snapshot.processes.size(), 1u);
  EXPECT_EQ(snapshot.processes[0].pid, 4242);
}

TEST(PulseModel, GroupsStreamsPerPIDAndDerivesTheRunningFlags) {
  PulseModel model;
  model.applyClient(client(1, "100"));
  model.applyClient(client(2, "200"));
  model.applySinkInput(stream(10, 1, /*corked=*/true));
  model.applySourceOutput(stream(11, 1, /*corked=*/false));  // recording only
  model.applySinkInput(stream(12, 2, true));
  model.applySinkInput(stream(13, 2, false));
  const auto snapshot = model.snapshot(true);
  ASSERT_EQ(snapshot.processes.size(), 2u);
  const auto& recorder = snapshot.processes[0];
  EXPECT_EQ(recorder.pid, 100);
  EXPECT_TRUE(recorder.running);
  EXPECT_FALSE(recorder.runningOutput);
  const auto& player = snapshot.processes[1];
  EXPECT_EQ(player.sinkInputs, (std::vector<std::uint32_t>{12, 13}));
  EXPECT_TRUE(player.runningOutput);
}

TEST(PulseModel, ObjectIDsStayWhileTheirPIDHasStreamsAndAreNeverReused) {
  PulseModel model;
  model.applyClient(client(1, "100"));
  model.applySinkInput(stream(10, 1));
  model.applySink(sink(0, "out1"));
  const auto first = model.snapshot(true);
  model.applySinkInput(stream(11, 1));
  const auto second = model.snapshot(true);
  EXPECT_EQ(second.processes[0].id, first.processes[0].id);
  EXPECT_EQ(second.devices[0].id, first.devices[0].id);

  model.remove(PulseModel::Kind::sinkInput, 10);
  model.remove(PulseModel::Kind::sinkInput, 11);
  EXPECT_TRUE(model.snapshot(true).processes.empty());
  model.announce(PulseModel::Kind::sinkInput, 12);
  model.applySinkInput(stream(12, 1));
  EXPECT_NE(model.snapshot(true).processes[0].id, first.processes[0].id)
      << "a PID that comes back is a new process object";
}

TEST(PulseModel, TheVerifiedPIDWinsUnlessItIsTheProxys) {
  const StreamInfo native = stream(1, 1, false, {{"pipewire.sec.pid", "300"}});
  const ClientInfo sandboxed = client(
      1, "2",
      {{"pipewire.access.portal.app_id", "org.flat.App"}, {"application.id", "org.flat.Inner"}});
  EXPECT_EQ(streamPID(native, &sandboxed), 300) << "the sandbox reports its inner PID 2";
  EXPECT_EQ(streamBundleID(native, &sandboxed), "org.flat.App");

  // pipewire-pulse verifies its own socket: every pulse client carries the proxy's PID.
  PulseModel model;
  model.setOwnClient(5, 999);
  model.applyClient(client(5, "999", {{"pipewire.sec.pid", "77"}}));
  model.applyClient(client(6, "1234", {{"pipewire.sec.pid", "77"}}));
  model.applyClient(client(7, "5", {{"pipewire.sec.pid", "4321"}}));
  model.applySinkInput(stream(20, 6));
  model.applySinkInput(stream(21, 7));
  const auto snapshot = model.snapshot(true);
  ASSERT_EQ(snapshot.processes.size(), 2u);
  EXPECT_EQ(snapshot.processes[0].pid, 1234);
  EXPECT_EQ(snapshot.processes[1].pid, 4321);

  for (const char* bad : {"", "0", "-5", "12abc"}) {
    const ClientInfo unusable = client(1, bad);
    EXPECT_FALSE(streamPID(stream(1, 1), &unusable).has_value()) << bad;
  }
}

TEST(PulseModel, DevicesAverageTheirChannelsAndOurTapsAreNoDevices) {
  PulseModel model;
  model.applySink(sink(0, "out1", {kVolumeNorm / 2, kVolumeNorm}));
  SinkInfo loud = sink(1, "loud", {kVolumeNorm * 2, kVolumeNorm * 2});
  loud.properties["device.description"] = "Lautsprecher";
  model.applySink(loud);
  SinkInfo tap = sink(2, "Quellix-Player");
  tap.properties[kTapOwnerProperty] = "123";
  model.applySink(tap);
  model.setDefaultSinkName("loud");
  const auto snapshot = model.snapshot(true);
  ASSERT_EQ(snapshot.devices.size(), 2u);
  EXPECT_FLOAT_EQ(snapshot.devices[0].volume, 0.75f);
  EXPECT_FLOAT_EQ(snapshot.devices[1].volume, 1.0f) << "at most 1";
  EXPECT_EQ(snapshot.defaultOutput, snapshot.devices[1].id);
  EXPECT_EQ(snapshot.devices[0].name, "out1") << "no description: the sink's name";
  EXPECT_EQ(snapshot.devices[1].name, "Lautsprecher");
  EXPECT_EQ(snapshot.deviceWithUID("Quellix-Player"), nullptr);
}

TEST(PulseModel, ChangesBetweenSnapshotsAreTheListenerNotifications) {
  PulseModel model;
  model.applyClient(client(1, "100"));
  model.applySinkInput(stream(10, 1));
  model.applySink(sink(0, "out1"));
  model.applySink(sink(1, "out2"));
  model.setDefaultSinkName("out1");
  const auto before = model.snapshot(true);
  EXPECT_TRUE(changesBetween(before, before).empty());

  model.applySinkInput(stream(10, 1, /*corked=*/true));
  SinkInfo quieter = sink(0, "out1", {kVolumeNorm / 2, kVolumeNorm / 2});
  quieter.mute = true;
  quieter.properties["device.description"] = "Kopfhörer";
  model.applySink(quieter);
  model.setDefaultSinkName("out2");
  const auto after = model.snapshot(true);
  const AudioObjectID process = after.processes[0].id;
  const AudioObjectID out1 = after.devices[0].id;
  const auto global = [](AudioObjectPropertySelector s) {
    return AudioObjectPropertyAddress{s, kAudioObjectPropertyScopeGlobal, 0};
  };
  const auto output = [](AudioObjectPropertySelector s) {
    return AudioObjectPropertyAddress{s, kAudioDevicePropertyScopeOutput, 0};
  };
  EXPECT_EQ(changesBetween(before, after),
            (std::vector<PropertyChange>{
                {1, global(kAudioHardwarePropertyDefaultOutputDevice)},
                {process, global(kAudioProcessPropertyIsRunning)},
                {process, global(kAudioProcessPropertyIsRunningOutput)},
                {out1, output(kAudioHardwareServiceDeviceProperty_VirtualMainVolume)},
                {out1, output(kAudioDevicePropertyMute)},
                {out1, global(kAudioObjectPropertyName)},
            }));

  model.reset();
  const auto empty = model.snapshot(false);
  EXPECT_EQ(changesBetween(after, empty),
            (std::vector<PropertyChange>{
                {1, global(kAudioHardwarePropertyProcessObjectList)},
                {1, global(kAudioHardwarePropertyDevices)},
                {1, global(kAudioHardwarePropertyDefaultOutputDevice)},
            }));
}

}  // namespace
}  // namespace quellix::pulse
