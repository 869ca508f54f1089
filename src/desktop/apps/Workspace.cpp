#include "desktop/apps/Workspace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "desktop/apps/ProcFiles.h"
#include "support/FourCharCode.h"
#include "support/Parsing.h"

namespace quellix {
namespace {

std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return {};
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::vector<std::filesystem::path> splitDirs(const char* value, const char* fallback) {
  std::vector<std::filesystem::path> dirs;
  std::stringstream list(value != nullptr && *value != '\0' ? value : fallback);
  std::string dir;
  while (std::getline(list, dir, ':')) {
    if (!dir.empty() && dir.front() == '/') {
      dirs.emplace_back(dir);
    }
  }
  return dirs;
}

}  // namespace

Workspace::Roots Workspace::systemRoots() {
  Roots roots;
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome != nullptr && *dataHome == '/') {
    roots.dataDirs.emplace_back(dataHome);
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    roots.dataDirs.push_back(std::filesystem::path(home) / ".local" / "share");
  }
  for (auto& dir : splitDirs(std::getenv("XDG_DATA_DIRS"), "/usr/local/share:/usr/share")) {
    roots.dataDirs.push_back(std::move(dir));
  }
  roots.uid = ::getuid();
  roots.locale = messageLocale();
  return roots;
}

Workspace::Workspace(Roots roots)
    : roots_(std::move(roots)), entries_(roots_.dataDirs, roots_.locale) {
  entries_.refreshIfChanged();
}

void Workspace::refresh() {
  entries_.refreshIfChanged();
  ++round_;
  // Processes that were not asked about for long are forgotten.
  constexpr std::size_t kForgetAfterRounds = 64;
  std::erase_if(processes_, [&](const auto& entry) {
    return entry.second.checkedInRound + kForgetAfterRounds < round_;
  });
}

const Workspace::Process* Workspace::process(pid_t pid) {
  if (pid <= 0) {
    return nullptr;
  }
  if (const auto known = processes_.find(pid);
      known != processes_.end() && known->second.checkedInRound == round_ &&
      known->second.entryGeneration == entries_.generation()) {
    return &known->second;
  }
  const auto directory = procPath(pid);
  const auto stat = ProcFiles::parseStat(readFile(directory / "stat"));
  if (!stat) {
    processes_.erase(pid);
    return nullptr;
  }
  const unsigned long long startTime = stat->startTime;
  auto found = processes_.find(pid);
  if (found != processes_.end() && found->second.startTime == startTime &&
      found->second.entryGeneration == entries_.generation()) {
    found->second.checkedInRound = round_;
    return &found->second;
  }
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0) {
    processes_.erase(pid);
    return nullptr;
  }
  Process record;
  record.checkedInRound = round_;
  record.startTime = startTime;
  record.parent = stat->parent;
  record.uid = info.st_uid;
  std::error_code error;
  const auto exe = std::filesystem::read_symlink(directory / "exe", error);
  if (!error && !exe.empty()) {
    std::string name = exe.filename().string();
    if (name.ends_with(" (deleted)")) {
      name.erase(name.size() - 10);
    }
    record.name = decodeUtf8Lossy(name);
  } else {
    record.name = decodeUtf8Lossy(stat->name);
  }
  record.entryGeneration = entries_.generation();
  record.entryID = record.uid == roots_.uid ? matchEntry(pid, record) : std::string();
  return &(processes_[pid] = std::move(record));
}

std::optional<std::string> Workspace::entryFromLauncher(pid_t pid) const {
  const auto id = ProcFiles::launchedDesktopID(readFile(procPath(pid) / "environ"), pid);
  return id && entries_.byID(*id) != nullptr ? id : std::nullopt;
}

std::optional<std::string> Workspace::entryFromSandbox(pid_t pid) const {
  const auto appID = ProcFiles::flatpakAppID(readFile(procPath(pid) / "root" / ".flatpak-info"));
  if (const auto* entry = appID ? entries_.byFlatpakID(*appID) : nullptr) {
    return entry->id;
  }
  return std::nullopt;
}

std::optional<std::string> Workspace::entryFromAppScope(pid_t pid) const {
  for (const auto& candidate : ProcFiles::cgroupCandidates(readFile(procPath(pid) / "cgroup"))) {
    if (candidate.kind == ProcFiles::CgroupCandidate::Kind::desktopID) {
      if (entries_.byID(candidate.id) != nullptr) {
        return candidate.id;
      }
    } else if (const auto* entry = entries_.byFlatpakID(candidate.id)) {
      return entry->id;
    }
  }
  return std::nullopt;
}

std::string Workspace::matchEntry(pid_t pid, const Process& process) const {
  for (const auto& found :
       {entryFromLauncher(pid), entryFromSandbox(pid), entryFromAppScope(pid)}) {
    if (found) {
      return *found;
    }
  }
  const auto* entry = entries_.byExecutable(process.name);
  return entry != nullptr ? entry->id : std::string();
}

std::optional<RunningApplication> Workspace::application(pid_t pid) {
  const Process* record = process(pid);
  if (record == nullptr || record->entryID.empty()) {
    return std::nullopt;
  }
  const std::string entryID = record->entryID;
  const pid_t parent = record->parent;
  // A helper that the application started from its own entry is part of it, not another one.
  if (const Process* parentRecord = process(parent);
      parentRecord != nullptr && parentRecord->entryID == entryID) {
    return std::nullopt;
  }
  const DesktopEntry* entry = entries_.byID(entryID);
  if (entry == nullptr) {
    return std::nullopt;
  }
  return RunningApplication{pid, entry->path, entry->id, entry->name, entry->icon};
}

std::vector<RunningApplication> Workspace::runningApplications() {
  std::vector<pid_t> pids;
  std::error_code error;
  for (std::filesystem::directory_iterator it(roots_.proc, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (const auto pid = parseStrictInt32(name); pid && *pid > 0 && name.front() != '+') {
      pids.push_back(static_cast<pid_t>(*pid));
    }
  }
  std::sort(pids.begin(), pids.end());
  std::vector<RunningApplication> applications;
  for (const pid_t pid : pids) {
    if (auto application = this->application(pid)) {
      applications.push_back(std::move(*application));
    }
  }
  // Forget processes that are gone.
  std::erase_if(processes_, [&](const auto& entry) {
    return !std::binary_search(pids.begin(), pids.end(), entry.first);
  });
  return applications;
}

std::optional<std::string> Workspace::processName(pid_t pid) {
  const Process* record = process(pid);
  if (record == nullptr || record->name.empty()) {
    return std::nullopt;
  }
  return record->name;
}

std::optional<pid_t> Workspace::parentPID(pid_t pid) {
  const Process* record = process(pid);
  return record != nullptr ? std::optional<pid_t>(record->parent) : std::nullopt;
}

}  // namespace quellix
