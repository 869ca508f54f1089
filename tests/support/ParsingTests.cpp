#include "support/Parsing.h"

#include <gtest/gtest.h>

#include <cmath>

namespace quellix {
namespace {

TEST(Parsing, StrictDoubleTakesOnlyAWholeLiteral) {
  EXPECT_EQ(parseStrictDouble("30"), 30.0);
  EXPECT_EQ(parseStrictDouble("+0.5"), 0.5);
  EXPECT_EQ(parseStrictDouble("1e2"), 100.0);
  EXPECT_EQ(parseStrictDouble("-1"), -1.0);
  EXPECT_TRUE(std::isnan(*parseStrictDouble("nan")));
  for (const char* bad : {"", " 5", "5 ", "\t5", "abc", "5%", "1,5", "--1"}) {
    EXPECT_FALSE(parseStrictDouble(bad).has_value()) << bad;
  }
  EXPECT_FALSE(parseStrictDouble(std::string_view("\0"
                                                  "5",
                                                  2))
                   .has_value());
  EXPECT_FALSE(parseStrictDouble(std::string_view("5\0"
                                                  "1",
                                                  3))
                   .has_value());
}

TEST(Parsing, StrictInt32TakesSignAndDigitsInRange) {
  EXPECT_EQ(parseStrictInt32("1234"), 1234);
  EXPECT_EQ(parseStrictInt32("+7"), 7);
  EXPECT_EQ(parseStrictInt32("-2147483648"), INT32_MIN);
  for (const char* bad : {"", "+", "-", "2147483648", " 12", "12 ", "1.0", "0x10", "+-1"}) {
    EXPECT_FALSE(parseStrictInt32(bad).has_value()) << bad;
  }
}

}  // namespace
}  // namespace quellix
