// A response body from the update feed's server, which may be anything a network returns.
#include <cstdint>
#include <string_view>

#include "state/UpdateChecker.h"
#include "support/TextError.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    quellix::UpdateChecker::decodeFeed(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const quellix::TextError&) {
    // the answer to a body that is not the feed
  }
  return 0;
}
