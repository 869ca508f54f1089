#include "tray/ScrollReading.h"

#include <cstdlib>

namespace quellix {

int ScrollReading::notches(int delta) {
  if (std::abs(delta) >= kAngleDeltaPerNotch) {
    angleDeltas = true;
  }
  if (!angleDeltas && delta != 0 && std::abs(delta) <= kLargestStep) {
    return delta < 0 ? 1 : -1;
  }
  const int total = partialNotch + delta;
  partialNotch = total % kAngleDeltaPerNotch;
  return total / kAngleDeltaPerNotch;
}

}  // namespace quellix
