#include "desktop/apps/ProcessInfo.h"

#include <chrono>

namespace quellix::ProcessInfo {

double systemUptime() {
  // The monotonic clock starts with the system and stands still while it sleeps.
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace quellix::ProcessInfo
