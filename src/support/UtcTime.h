#pragma once

#include <string>

namespace quellix {

// The current time in UTC, rendered with strftime's `format`.
std::string currentUtcTime(const char* format);

}  // namespace quellix
