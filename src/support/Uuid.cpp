#include "support/Uuid.h"

#include <random>

namespace quellix {

Uuid Uuid::random() {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  Uuid uuid;
  for (std::size_t i = 0; i < uuid.bytes_.size(); i += 8) {
    const std::uint64_t word = generator();
    for (std::size_t j = 0; j < 8; ++j) {
      uuid.bytes_[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
    }
  }
  uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0F) | 0x40);
  uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3F) | 0x80);
  return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) {
    return std::nullopt;
  }
  Uuid uuid;
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') {
        return std::nullopt;
      }
      ++i;
      continue;
    }
    auto nibble = [](char c) -> int {
      if (c >= '0' && c <= '9')
        return c - '0';
      if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
      if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
      return -1;
    };
    const int high = nibble(text[i]);
    const int low = nibble(text[i + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    uuid.bytes_[byte++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return uuid;
}

std::string Uuid::uuidString() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      text += '-';
    }
    text += kDigits[bytes_[i] >> 4];
    text += kDigits[bytes_[i] & 0x0F];
  }
  return text;
}

}  // namespace quellix
