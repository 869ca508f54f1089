#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quellix {

// A random (version 4) UUID.
class Uuid {
 public:
  static Uuid random();
  static std::optional<Uuid> parse(std::string_view text);

  // Canonical form, upper case: 8-4-4-4-12 hexadecimal digits.
  std::string uuidString() const;

  friend bool operator==(const Uuid&, const Uuid&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace quellix
