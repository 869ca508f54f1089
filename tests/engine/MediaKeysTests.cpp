#include "engine/media/MediaKeys.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <vector>

#include "desktop/apps/ProcessInfo.h"
#include "desktop/mpris/Accessibility.h"
#include "desktop/mpris/EventFactory.h"
#include "desktop/mpris/EventPoster.h"
#include "support/Logger.h"

namespace quellix {
namespace {

// The standard factory, keeping what it made and failing the calls it is told to.
class RecordingFactory final : public EventFactory {
 public:
  std::optional<SystemDefinedEvent> otherEvent(NSEventType type, NSPoint location,
                                               NSEventModifierFlags modifierFlags, double timestamp,
                                               std::int64_t windowNumber,
                                               const NSGraphicsContext* context,
                                               std::int16_t subtype, std::int64_t data1,
                                               std::int64_t data2) override {
    if (failMaking == ++madeCalls) {
      return std::nullopt;
    }
    auto event = standard->otherEvent(type, location, modifierFlags, timestamp, windowNumber,
                                      context, subtype, data1, data2);
    made.push_back(*event);
    return event;
  }

  std::optional<CGEvent> cgEvent(const SystemDefinedEvent& event) override {
    if (failLowering == ++loweringCalls) {
      return std::nullopt;
    }
    return standard->cgEvent(event);
  }

  std::shared_ptr<EventFactory> standard = makeStandardEventFactory();
  std::vector<SystemDefinedEvent> made;
  int madeCalls = 0;
  int loweringCalls = 0;
  int failMaking = 0;  // the nth call fails; 0: none
  int failLowering = 0;
};

class RecordingPoster final : public EventPoster {
 public:
  void post(CGEventTapLocation tap, const CGEvent& event) override {
    taps.push_back(tap);
    posted.push_back(event);
  }
  std::optional<std::string> unreachableReason() const override { return reason; }

  std::vector<CGEventTapLocation> taps;
  std::vector<CGEvent> posted;
  std::optional<std::string> reason;
};

class FakeTrust final : public AccessibilityTrust {
 public:
  bool isTrusted() override { return trusted; }
  void prompt() override { ++prompts; }

  bool trusted = true;
  int prompts = 0;
};

class MediaKeysTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousFactory_ = installEventFactory(factory);
    previousPoster_ = installEventPoster(poster);
    previousTrust_ = installAccessibilityTrust(trust);
  }
  void TearDown() override {
    installEventFactory(previousFactory_);
    installEventPoster(previousPoster_);
    installAccessibilityTrust(previousTrust_);
  }

  std::vector<std::int64_t> postedData1() const {
    std::vector<std::int64_t> data1;
    for (const auto& event : poster->posted) {
      data1.push_back(event.data1);
    }
    return data1;
  }

  std::shared_ptr<RecordingFactory> factory = std::make_shared<RecordingFactory>();
  std::shared_ptr<RecordingPoster> poster = std::make_shared<RecordingPoster>();
  std::shared_ptr<FakeTrust> trust = std::make_shared<FakeTrust>();
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();

 private:
  std::shared_ptr<EventFactory> previousFactory_;
  std::shared_ptr<EventPoster> previousPoster_;
  std::shared_ptr<AccessibilityTrust> previousTrust_;
};

TEST_F(MediaKeysTest, PlayPauseIsAKeyDownThenAKeyUpWithEveryField) {
  const double before = ProcessInfo::systemUptime();
  MediaKeys::send(MediaKeys::kPlayPause);
  const double after = ProcessInfo::systemUptime();

  ASSERT_EQ(factory->made.size(), 2u);
  const std::int64_t data1[] = {0x100A00, 0x100B00};
  const NSEventModifierFlags flags[] = {0x0A00, 0x0B00};
  for (std::size_t i = 0; i < 2; ++i) {
    const SystemDefinedEvent& event = factory->made[i];
    EXPECT_EQ(event.type, 14u);
    EXPECT_EQ(event.location, (NSPoint{0, 0}));
    EXPECT_EQ(event.modifierFlags, flags[i]);
    EXPECT_GE(event.timestamp, before);
    EXPECT_LE(event.timestamp, after);
    EXPECT_EQ(event.windowNumber, 0);
    EXPECT_EQ(event.context, nullptr);
    EXPECT_EQ(event.subtype, 8);
    EXPECT_EQ(event.data1, data1[i]);
    EXPECT_EQ(event.data2, -1);
  }
  EXPECT_LE(factory->made[0].timestamp, factory->made[1].timestamp);

  ASSERT_EQ(poster->posted.size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    const CGEvent& event = poster->posted[i];
    EXPECT_EQ(poster->taps[i], kCGHIDEventTap);
    EXPECT_EQ(event.type, 14u);
    EXPECT_EQ(event.flags, flags[i]);
    EXPECT_EQ(event.subtype, 8);
    EXPECT_EQ(event.data1, data1[i]);
    EXPECT_EQ(event.data2, -1);
  }
  EXPECT_EQ(poster->posted[0].timestamp,
            static_cast<std::uint64_t>(std::llround(factory->made[0].timestamp * 1e9)));
  EXPECT_EQ(trust->prompts, 0) << "a trusted process is not asked";
}

TEST_F(MediaKeysTest, EachKeyCarriesItsCodeAboveTheState) {
  MediaKeys::send(MediaKeys::kPreviousTrack);
  MediaKeys::send(MediaKeys::kNextTrack);
  EXPECT_EQ(postedData1(), (std::vector<std::int64_t>{0x120A00, 0x120B00, 0x110A00, 0x110B00}));

  // The 32-bit word is widened with its sign.
  poster->posted.clear();
  MediaKeys::send(0xFFFF);
  EXPECT_EQ(postedData1(), (std::vector<std::int64_t>{-0xF600, -0xF500}));
}

TEST_F(MediaKeysTest, AnUntrustedProcessAsksOnEveryPressAndPostsAllTheSame) {
  trust->trusted = false;
  MediaKeys::send(MediaKeys::kPlayPause);
  MediaKeys::send(MediaKeys::kPlayPause);
  MediaKeys::send(MediaKeys::kNextTrack);
  EXPECT_EQ(trust->prompts, 3);
  EXPECT_EQ(poster->posted.size(), 6u);
}

TEST_F(MediaKeysTest, AnEventThatCannotBeMadeIsSkippedAlone) {
  factory->failMaking = 1;
  MediaKeys::send(MediaKeys::kPlayPause);
  EXPECT_EQ(postedData1(), (std::vector<std::int64_t>{0x100B00}));

  // Made, but without a low-level form: likewise.
  poster->posted.clear();
  factory->failMaking = 0;
  factory->loweringCalls = 0;
  factory->failLowering = 2;
  MediaKeys::send(MediaKeys::kPlayPause);
  EXPECT_EQ(postedData1(), (std::vector<std::int64_t>{0x100A00}));
  EXPECT_TRUE(logs->messages().empty());
}

TEST_F(MediaKeysTest, WithoutAWayToThePlayersTheDesktopTrustSaysNoAndLogsWhy) {
  installAccessibilityTrust(makeDesktopAccessibilityTrust(logs));
  EXPECT_TRUE(AXIsProcessTrusted());
  EXPECT_TRUE(AXIsProcessTrustedWithOptions({.prompt = true}));
  EXPECT_TRUE(logs->messages().empty());

  poster->reason = "no session bus";
  EXPECT_FALSE(AXIsProcessTrusted());
  EXPECT_TRUE(logs->messages().empty());
  MediaKeys::send(MediaKeys::kPlayPause);
  EXPECT_EQ(logs->messages("MediaKeys"),
            (std::vector<std::string>{"The media keys cannot reach any player: no session bus"}));
  EXPECT_EQ(poster->posted.size(), 2u);
}

}  // namespace
}  // namespace quellix
