#include "support/FourCharCode.h"

#include <gtest/gtest.h>

namespace quellix {
namespace {

TEST(FourCharCode, SpellsTheBytesMostSignificantFirst) {
  EXPECT_EQ(fourCC("ppid"), 0x70706964u);
  EXPECT_EQ(fourCharString(fourCC("prs#")), "prs#");
  EXPECT_EQ(fourCharString(fourCC("uid ")), "uid ");
}

TEST(FourCharCode, ReplacesEachInvalidSequenceAndKeepsControlBytes) {
  struct Case {
    std::uint32_t value;
    std::string expected;
  };
  const Case cases[] = {
      {0x00000001u, std::string("\0\0\0\x01", 4)},
      {0xFF616263u,
       "\xEF\xBF\xBD"
       "abc"},
      {0xC3A46263u,
       "\xC3\xA4"
       "bc"},  // a valid two-byte sequence stays
      {0xE2826263u,
       "\xEF\xBF\xBD"
       "bc"},  // truncated three-byte sequence: one mark
      {0x80808080u, "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {0x21736964u, "!sid"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fourCharString(c.value), c.expected) << std::hex << c.value;
  }
}

TEST(FourCharCode, StatusesPrintAsSignedDecimals) {
  EXPECT_EQ(statusString(-50), "-50");
  EXPECT_EQ(statusString(static_cast<std::int32_t>(fourCC("who?"))), "2003332927");
  EXPECT_EQ(statusString(static_cast<std::int32_t>(0x80000000u)), "-2147483648");
}

}  // namespace
}  // namespace quellix
