#include "audio/CoreAudioSupport.h"

#include <gtest/gtest.h>

#include "harness/TestSupport.h"

namespace quellix {
namespace {

using Call = SimAudioBackend::Call;

class CoreAudioSupportTest : public testing::SimTest {};

std::string errorText(const std::function<void()>& action) {
  try {
    action();
  } catch (const TextError& error) {
    return error.description();
  }
  return "(no error)";
}

// The main element and both scopes show in the error texts below.
TEST(AddressDescription, PrintsAnElementAsItsFourCharacters) {
  EXPECT_EQ(describe({kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput, fourCC("chn1")}),
            "mute/outp/chn1");
  EXPECT_EQ(describe({kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput, 1}),
            std::string("mute/outp/\0\0\0\x01", 14))
      << "an element is never printed as a number";
}

TEST_F(CoreAudioSupportTest, ErrorTextsNameTheAddressAndTheSignedStatus) {
  const AudioObjectID process = sim->addProcess({.pid = 7});
  const auto pid = globalAddress(kAudioProcessPropertyPID);
  const auto whoStatus = static_cast<OSStatus>(fourCC("who?"));
  struct Case {
    Call call;
    AudioObjectPropertySelector selector;
    OSStatus status;
    std::function<void()> action;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {Call::getPropertyDataSize, kAudioProcessPropertyPID, -50,
       [&] { read<SInt32>(hardware, process, pid, 0); },
       "Error reading data size for ppid/glob/main: -50"},
      {Call::getPropertyData, kAudioProcessPropertyPID, whoStatus,
       [&] { read<SInt32>(hardware, process, pid, 0); },
       "Error reading data for ppid/glob/main: 2003332927"},
      {Call::getPropertyDataSize, kAudioHardwarePropertyProcessObjectList, -1,
       [&] { readProcessList(hardware); }, "Error reading data size for prs#/glob/main: -1"},
      {Call::getPropertyData, kAudioHardwarePropertyProcessObjectList, 5,
       [&] { readProcessList(hardware); }, "Error reading array for prs#/glob/main: 5"},
      {Call::getPropertyDataSize, kAudioHardwarePropertyDevices, -3,
       [&] { readDeviceList(hardware); }, "Error reading device list size: -3"},
      {Call::getPropertyData, kAudioHardwarePropertyDevices, -4, [&] { readDeviceList(hardware); },
       "Error reading device list: -4"},
      {Call::setPropertyData, kAudioHardwareServiceDeviceProperty_VirtualMainVolume, -9,
       [&] {
         write<Float32>(hardware, 2,
                        {kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                         kAudioDevicePropertyScopeOutput, 0},
                        0.5f);
       },
       "Error writing data for vmvc/outp/main: -9"},
  };
  for (const auto& c : cases) {
    sim->clearFaults();
    sim->failProperty(kAudioObjectUnknown, c.selector, c.call, c.status);
    EXPECT_EQ(errorText(c.action), c.expected);
  }
}

TEST_F(CoreAudioSupportTest, ListsOfSizeZeroAreEmpty) {
  EXPECT_TRUE(readProcessList(hardware).empty());
  EXPECT_TRUE(readDeviceList(hardware).empty());
  const AudioObjectID a = sim->addProcess({.pid = 1});
  const AudioObjectID b = sim->addProcess({.pid = 2});
  EXPECT_EQ(readProcessList(hardware), (std::vector<AudioObjectID>{a, b}));
}

TEST_F(CoreAudioSupportTest, TypedReadsCoverEveryValueType) {
  const AudioObjectID device = addDefaultOutput("speakers");
  const AudioObjectID process = sim->addProcess({.pid = -3, .bundleID = "org.example.player"});
  EXPECT_EQ(read<SInt32>(hardware, process, globalAddress(kAudioProcessPropertyPID), 0), -3);
  EXPECT_EQ(read<UInt32>(hardware, 1, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), 0),
            device);
  EXPECT_EQ(
      read<CFString>(hardware, device, globalAddress(kAudioDevicePropertyDeviceUID), CFString())
          .str(),
      "speakers");
  EXPECT_EQ(read<std::optional<Float64>>(
                hardware, device, globalAddress(kAudioDevicePropertyNominalSampleRate), Float64{0}),
            48000.0);
  EXPECT_EQ(read<Float32>(hardware, device,
                          {kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                           kAudioDevicePropertyScopeOutput, 0},
                          0.0f),
            1.0f);
  // A 32-bit flag read into a 64-bit integer keeps the default's upper bytes.
  EXPECT_EQ(
      read<std::int64_t>(hardware, process, globalAddress(kAudioProcessPropertyIsRunningOutput), 0),
      1);
}

TEST_F(CoreAudioSupportTest, AReportedSizeLargerThanTheValueTypeIsRefused) {
  const AudioObjectID process = sim->addProcess({.pid = 5});
  sim->overrideReportedSize(process, kAudioProcessPropertyPID, 64);
  EXPECT_EQ(errorText([&] {
              read<SInt32>(hardware, process, globalAddress(kAudioProcessPropertyPID), 0);
            }),
            "Error reading data for ppid/glob/main: size 64 exceeds the 4 bytes of the value type");
  EXPECT_EQ(sim->callCount(Call::getPropertyData), 0u) << "the data read never runs";
}

TEST_F(CoreAudioSupportTest, BundleIdentifierIsNoneWhenEmptyOrUnreadable) {
  const AudioObjectID named = sim->addProcess({.pid = 1, .bundleID = "org.example.a"});
  const AudioObjectID unnamed = sim->addProcess({.pid = 2});
  const AudioObjectID failing = sim->addProcess({.pid = 3, .bundleID = "org.example.c"});
  sim->failProperty(failing, kAudioProcessPropertyBundleID, Call::getPropertyData, -1);
  EXPECT_EQ(readProcessBundleID(hardware, named), "org.example.a");
  EXPECT_EQ(readProcessBundleID(hardware, unnamed), std::nullopt);
  EXPECT_EQ(readProcessBundleID(hardware, failing), std::nullopt);
  EXPECT_EQ(readProcessBundleID(hardware, 9999), std::nullopt);
}

}  // namespace
}  // namespace quellix
