#include "support/FourCharCode.h"

namespace quellix {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// Length of the well-formed sequence starting at `at`, or the length of the maximal
// subpart to replace (at least 1) as a negative number.
int sequenceLength(std::string_view bytes, std::size_t at) {
  const auto lead = static_cast<unsigned char>(bytes[at]);
  if (lead < 0x80) {
    return 1;
  }
  int length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0)
      low = 0xA0;
    if (lead == 0xED)
      high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0)
      low = 0x90;
    if (lead == 0xF4)
      high = 0x8F;
  } else {
    return -1;
  }
  for (int i = 1; i < length; ++i) {
    const std::size_t index = at + static_cast<std::size_t>(i);
    if (index >= bytes.size()) {
      return -i;
    }
    const auto byte = static_cast<unsigned char>(bytes[index]);
    const bool inRange = i == 1 ? (byte >= low && byte <= high) : isContinuation(byte);
    if (!inRange) {
      return -i;
    }
  }
  return length;
}

}  // namespace

std::string decodeUtf8Lossy(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  std::size_t at = 0;
  while (at < bytes.size()) {
    const int length = sequenceLength(bytes, at);
    if (length > 0) {
      text.append(bytes.substr(at, static_cast<std::size_t>(length)));
      at += static_cast<std::size_t>(length);
    } else {
      text.append(kReplacement);
      at += static_cast<std::size_t>(-length);
    }
  }
  return text;
}

std::string fourCharString(std::uint32_t value) {
  const char bytes[4] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                         static_cast<char>(value >> 8), static_cast<char>(value)};
  return decodeUtf8Lossy(std::string_view(bytes, 4));
}

std::string statusString(std::int32_t status) {
  return std::to_string(status);
}

}  // namespace quellix
