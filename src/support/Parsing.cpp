#include "support/Parsing.h"

#include <locale.h>

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <string>

namespace quellix {
namespace {

locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return locale;
}

}  // namespace

std::optional<double> parseStrictDouble(std::string_view text) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front())) ||
      text.front() == '\0') {
    return std::nullopt;
  }
  const std::string copy(text);  // strtod needs the terminating NUL
  char* end = nullptr;
  const double value = strtod_l(copy.c_str(), &end, cLocale());
  if (end != copy.c_str() + copy.size()) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::int32_t> parseStrictInt32(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') {
      return std::nullopt;
    }
  }
  std::int32_t value = 0;
  const auto* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) {
    return std::nullopt;
  }
  return value;
}

}  // namespace quellix
