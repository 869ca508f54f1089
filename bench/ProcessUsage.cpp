#include "ProcessUsage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace bench {
namespace {

// Fields of /proc/.../stat after the name in parentheses, counted from the state (field 3).
constexpr int kParentField = 4;
constexpr int kUserTimeField = 14;
constexpr int kSystemTimeField = 15;

std::vector<std::string> statFields(const std::filesystem::path& statFile) {
  std::ifstream file(statFile);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  const auto close = text.rfind(')');
  std::vector<std::string> fields = {"", ""};  // pid and name, not needed
  if (close == std::string::npos) {
    return {};
  }
  std::istringstream rest(text.substr(close + 1));
  for (std::string field; rest >> field;) {
    fields.push_back(field);
  }
  return fields;
}

long ticksIn(const std::vector<std::string>& fields) {
  if (fields.size() <= kSystemTimeField) {
    return 0;
  }
  return std::stol(fields[kUserTimeField - 1]) + std::stol(fields[kSystemTimeField - 1]);
}

}  // namespace

Memory memoryOf(pid_t pid) {
  Memory memory;
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string key;
    long value = 0;
    fields >> key >> value;
    if (key == "Rss:") {
      memory.rssKiB = value;
    } else if (key == "Pss:") {
      memory.pssKiB = value;
    }
  }
  return memory;
}

long cpuTicksOf(pid_t pid) {
  return ticksIn(statFields("/proc/" + std::to_string(pid) + "/stat"));
}

std::vector<ThreadTime> threadTimesOf(pid_t pid) {
  std::vector<ThreadTime> threads;
  std::error_code error;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    ThreadTime thread;
    thread.tid = static_cast<pid_t>(std::stol(task.path().filename().string()));
    std::ifstream comm(task.path() / "comm");
    std::getline(comm, thread.name);
    thread.ticks = ticksIn(statFields(task.path() / "stat"));
    threads.push_back(thread);
  }
  return threads;
}

std::vector<pid_t> childrenOf(pid_t pid) {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    const auto fields = statFields(entry.path() / "stat");
    if (fields.size() > kParentField && std::stol(fields[kParentField - 1]) == pid) {
      children.push_back(static_cast<pid_t>(std::stol(name)));
    }
  }
  return children;
}

double ticksPerSecond() {
  return static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace bench
