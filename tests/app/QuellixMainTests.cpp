#include "app/QuellixMain.h"

#include <gtest/gtest.h>

namespace quellix::QuellixMain {
namespace {

TEST(Dispatch, FollowsThePrecedenceOfTheModes) {
  struct Case {
    std::vector<std::string> arguments;
    Invocation expected;
  };
  const std::vector<Case> cases = {
      {{}, {Mode::application, ""}},
      {{"--spike", "Music"}, {Mode::spike, "Music"}},
      {{"--spike"}, {Mode::application, ""}},
      {{"--spike", "--list"}, {Mode::spike, "--list"}},
      {{"--list", "--spike", "x"}, {Mode::spike, "x"}},
      {{"--spike", "a", "--spike", "b"}, {Mode::spike, "a"}},
      {{"--list", "--spike"}, {Mode::list, ""}},
      {{"--taps", "--list"}, {Mode::list, ""}},
      {{"--volset", "30", "--taps"}, {Mode::taps, ""}},
      {{"--volset", "30"}, {Mode::volset, "30"}},
      {{"--volset", "30", "--volset", "40"}, {Mode::volset, "30"}},
      {{"--volset"}, {Mode::application, ""}},
      {{"--volset", "--list"}, {Mode::list, ""}},
      {{"--LIST"}, {Mode::application, ""}},
      {{"-list"}, {Mode::application, ""}},
      {{"---list"}, {Mode::application, ""}},
      {{"--list=yes"}, {Mode::application, ""}},
      {{"--spike=Music"}, {Mode::application, ""}},
      {{"unrelated", "--taps"}, {Mode::taps, ""}},
      {{"--mute", "Music", "--list"}, {Mode::mute, "Music"}},
      {{"--list", "--unmute", "Music"}, {Mode::unmute, "Music"}},
      {{"--toggle"}, {Mode::toggle, ""}},
      {{"--volume", "Music", "30"}, {Mode::volume, "Music", "30"}},
      {{"--volume", "Music"}, {Mode::volume, "Music", ""}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> arguments = {"/usr/bin/quellix"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const Invocation invocation = dispatch(arguments);
    std::string shown;
    for (const auto& argument : c.arguments) {
      shown += argument + " ";
    }
    EXPECT_EQ(invocation.mode, c.expected.mode) << shown;
    EXPECT_EQ(invocation.argument, c.expected.argument) << shown;
    EXPECT_EQ(invocation.value, c.expected.value) << shown;
  }
}

TEST(Dispatch, TheProgramPathItselfCanMatch) {
  // The vector is taken whole: a program invoked as "--list" lists.
  EXPECT_EQ(dispatch({"--list"}).mode, Mode::list);
}

}  // namespace
}  // namespace quellix::QuellixMain
