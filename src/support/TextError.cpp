#include "support/TextError.h"

namespace quellix {

std::string errorDescription(const std::exception& error) {
  if (const auto* text = dynamic_cast<const TextError*>(&error)) {
    return text->description();
  }
  return error.what();
}

}  // namespace quellix
