#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quellix {

// The whole text as a floating-point literal in the C locale: no white space before or after,
// nothing left over. Accepts what strtod does (signs, exponents, hexadecimal, inf, nan).
std::optional<double> parseStrictDouble(std::string_view text);

// The whole text as a signed 32-bit decimal: an optional sign, then digits only, in range.
std::optional<std::int32_t> parseStrictInt32(std::string_view text);

}  // namespace quellix
