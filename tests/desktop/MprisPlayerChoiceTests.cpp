#include "desktop/mpris/MprisPlayerChoice.h"

#include <gtest/gtest.h>

#include "desktop/mpris/MprisCommand.h"

namespace quellix {
namespace {

using Status = MprisPlaybackStatus;

TEST(MprisPlayerChoiceTest, ThePlayingOneWinsAmongPausedOnes) {
  MprisPlayerChoice choice;
  for (const char* name : {"a", "b", "c"}) {
    choice.appeared(name);
    choice.statusRead(name, Status::paused);
  }
  choice.statusRead("b", Status::playing);
  EXPECT_EQ(choice.choose(), "b");

  // A paused player that changed later does not outrank one that plays.
  choice.statusChanged("c", Status::stopped);
  EXPECT_EQ(choice.current(), "b");
  // Of two that play, the one that started last.
  choice.statusChanged("a", Status::playing);
  EXPECT_EQ(choice.current(), "a");
}

TEST(MprisPlayerChoiceTest, WhenNoneIsPlayingTheLastToChangeWins) {
  MprisPlayerChoice choice;
  for (const char* name : {"a", "b", "c"}) {
    choice.appeared(name);
    choice.statusRead(name, Status::playing);
  }
  choice.statusChanged("b", Status::paused);
  choice.statusChanged("a", Status::paused);
  choice.statusChanged("c", Status::stopped);
  EXPECT_EQ(choice.current(), "c");
  choice.statusChanged("b", Status::stopped);
  EXPECT_EQ(choice.current(), "b");
  // The same status again is no change.
  choice.statusChanged("a", Status::paused);
  EXPECT_EQ(choice.current(), "b");
  // Nor is a first read.
  choice.statusRead("a", Status::stopped);
  EXPECT_EQ(choice.current(), "b");
}

TEST(MprisPlayerChoiceTest, WithoutChangesTheLastChoiceStaysAndAChosenPlayerThatLeavesIsForgotten) {
  MprisPlayerChoice choice;
  EXPECT_EQ(choice.choose(), std::nullopt);
  for (const char* name : {"a", "b", "c"}) {
    choice.appeared(name);
    choice.statusRead(name, Status::paused);
  }
  // With nothing else to go by, the newest player.
  EXPECT_EQ(choice.choose(), "c");
  choice.appeared("d");
  EXPECT_EQ(choice.current(), "c") << "the last choice outranks a newer player";

  choice.left("c");
  EXPECT_EQ(choice.choose(), "d");
  choice.left("d");
  choice.statusRead("a", Status::playing);
  EXPECT_EQ(choice.choose(), "a");
  choice.statusChanged("a", Status::paused);
  choice.left("a");
  EXPECT_EQ(choice.choose(), "b");
  EXPECT_EQ(choice.players(), (std::vector<std::string>{"b"}));

  // A player that comes back is a new one; what the old one did is gone.
  choice.appeared("a");
  EXPECT_EQ(choice.current(), "b");
}

CGEvent mediaKey(std::int32_t key, std::uint32_t state) {
  const auto word = static_cast<std::int32_t>((static_cast<std::uint32_t>(key) << 16) | state);
  return {.type = 14, .flags = state, .subtype = 8, .data1 = word, .data2 = -1};
}

TEST(MprisCommandTest, OnlyAKeyDownOfAMediaKeyAtTheHardwareTapIsACommand) {
  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, mediaKey(18, 0x0A00)), MprisCommand::previous);
  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, mediaKey(16, 0x0A00)), MprisCommand::playPause);
  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, mediaKey(17, 0x0A00)), MprisCommand::next);

  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, mediaKey(16, 0x0B00)), std::nullopt);
  EXPECT_EQ(mprisCommandFor(kCGSessionEventTap, mediaKey(16, 0x0A00)), std::nullopt);
  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, mediaKey(0xFFFF, 0x0A00)), std::nullopt);
  auto otherSubtype = mediaKey(16, 0x0A00);
  otherSubtype.subtype = 7;
  EXPECT_EQ(mprisCommandFor(kCGHIDEventTap, otherSubtype), std::nullopt);
}

TEST(MprisCommandTest, APlayerIsOnlyAskedForWhatItSaysItCanDo) {
  const MprisPlayerState able{.status = Status::playing,
                              .canGoPrevious = true,
                              .canGoNext = true,
                              .canPlay = true,
                              .canPause = true};
  EXPECT_EQ(mprisMethodFor(MprisCommand::playPause, able), "Pause");
  EXPECT_EQ(mprisMethodFor(MprisCommand::previous, able), "Previous");
  EXPECT_EQ(mprisMethodFor(MprisCommand::next, able), "Next");
  for (const Status status : {Status::paused, Status::stopped}) {
    auto halted = able;
    halted.status = status;
    EXPECT_EQ(mprisMethodFor(MprisCommand::playPause, halted), "Play");
  }

  const MprisPlayerState unable{.status = Status::playing};
  for (const auto command : {MprisCommand::previous, MprisCommand::playPause, MprisCommand::next}) {
    EXPECT_EQ(mprisMethodFor(command, unable), std::nullopt);
  }
  // Able to play but not to pause: a playing player is left alone.
  auto cannotPause = able;
  cannotPause.canPause = false;
  EXPECT_EQ(mprisMethodFor(MprisCommand::playPause, cannotPause), std::nullopt);
}

}  // namespace
}  // namespace quellix
