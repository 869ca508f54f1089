#include "support/UtcTime.h"

#include <ctime>

namespace quellix {

std::string currentUtcTime(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, format, &utc);
  return std::string(text, length);
}

}  // namespace quellix
