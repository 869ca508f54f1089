#pragma once

namespace quellix::ProcessInfo {

// Seconds since the system started, not counting time asleep.
double systemUptime();

}  // namespace quellix::ProcessInfo
