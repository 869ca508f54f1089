#include "support/Logger.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

TEST(Logger, LinesCarryTheSubsystemCategoryAndLevel) {
  auto capture = std::make_shared<CapturingLogSink>();
  Logger(capture, "MuteController").info("Created");
  Logger(capture, "Spike").error("FEHLER: x");

  const auto entries = capture->entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].subsystem, "com.norvalin.quellix");
  EXPECT_EQ(entries[0].category, "MuteController");
  EXPECT_EQ(entries[0].level, LogLevel::info);
  EXPECT_EQ(entries[1].level, LogLevel::error);
  EXPECT_EQ(capture->messages("Spike"), std::vector<std::string>{"FEHLER: x"});
}

TEST(Logger, FixedFormatMatchesPrintf) {
  EXPECT_EQ(formatFixed(0.0), "0.000000");
  EXPECT_EQ(formatFixed(0.5), "0.500000");
  EXPECT_EQ(formatFixed(48000.0), "48000.000000");
}

}  // namespace
}  // namespace quellix
