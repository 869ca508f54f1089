#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// What /proc says about a process: resident memory and CPU time, the latter also per thread.
struct Memory {
  long rssKiB = 0;
  long pssKiB = 0;
};

struct ThreadTime {
  pid_t tid = 0;
  std::string name;
  long ticks = 0;  // user and system time, in clock ticks
};

Memory memoryOf(pid_t pid);
long cpuTicksOf(pid_t pid);
std::vector<ThreadTime> threadTimesOf(pid_t pid);
// Processes whose parent is `pid`.
std::vector<pid_t> childrenOf(pid_t pid);
double ticksPerSecond();

}  // namespace bench
