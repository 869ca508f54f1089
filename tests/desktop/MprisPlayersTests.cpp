#include "desktop/mpris/MprisPlayers.h"

#include <gtest/gtest.h>

#include "support/Logger.h"

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

// What a capable player is asked for, the media keys tests show against mpv.
TEST(MprisPlayerStateTest, APlayerIsOnlyAskedForWhatItSaysItCanDo) {
  const MprisPlayerState unable{.status = Status::playing};
  for (const auto key : {MediaKey::previous, MediaKey::playPause, MediaKey::next}) {
    EXPECT_EQ(mprisMethodFor(key, unable), std::nullopt);
  }
  // Able to play but not to pause: a playing player is left alone.
  const MprisPlayerState cannotPause{.status = Status::playing, .canPlay = true};
  EXPECT_EQ(mprisMethodFor(MediaKey::playPause, cannotPause), std::nullopt);
  EXPECT_EQ(mprisMethodFor(MediaKey::playPause, {.canPlay = true}), "Play") << "stopped";
}

TEST(MprisPlayersTest, WithoutABusEveryPressOnlySaysWhyInTheLog) {
  const auto logs = std::make_shared<CapturingLogSink>();
  MprisPlayers players(logs, QStringLiteral("unix:path=/nonexistent/quellix-test-bus"));
  const auto reason = players.unreachableReason();
  ASSERT_TRUE(reason);

  players.send(MediaKey::playPause);
  players.send(MediaKey::next);
  const std::string said = "The media keys cannot reach any player: " + *reason;
  EXPECT_EQ(logs->messages("MediaKeys"), (std::vector<std::string>{said, said}));
}

}  // namespace
}  // namespace quellix
