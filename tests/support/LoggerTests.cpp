#include "support/Logger.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

TEST(Logger, FixedFormatMatchesPrintf) {
  EXPECT_EQ(formatFixed(0.0), "0.000000");
  EXPECT_EQ(formatFixed(0.5), "0.500000");
  EXPECT_EQ(formatFixed(48000.0), "48000.000000");
}

}  // namespace
}  // namespace quellix
