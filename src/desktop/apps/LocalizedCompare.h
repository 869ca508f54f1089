#pragma once

#include <string_view>

namespace quellix {

// The user's locale's case-insensitive ordering of names: negative, zero or positive.
int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b);

}  // namespace quellix
