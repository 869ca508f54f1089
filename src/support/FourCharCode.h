#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quellix {

// The value whose four bytes, most significant first, spell the code.
constexpr std::uint32_t fourCC(const char (&code)[5]) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

// Decodes bytes as UTF-8, replacing each maximal invalid subpart with U+FFFD.
std::string decodeUtf8Lossy(std::string_view bytes);

// The four bytes of a 32-bit value, most significant first, decoded as UTF-8.
std::string fourCharString(std::uint32_t value);

// A 32-bit status as Core Audio's callers print it: signed decimal.
std::string statusString(std::int32_t status);

}  // namespace quellix
