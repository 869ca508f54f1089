// Two version texts, the input split at its first NUL byte: a published one and ours.
#include <cstdint>
#include <string_view>

#include "state/UpdateChecker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using quellix::UpdateChecker;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto split = bytes.find('\0');
  const auto candidate = bytes.substr(0, split);
  const auto installed = split == std::string_view::npos ? bytes : bytes.substr(split + 1);
  // Newer is a strict order: never both ways, never against itself.
  if (UpdateChecker::isNewer(candidate, candidate) ||
      (UpdateChecker::isNewer(candidate, installed) &&
       UpdateChecker::isNewer(installed, candidate))) {
    __builtin_trap();
  }
  return 0;
}
