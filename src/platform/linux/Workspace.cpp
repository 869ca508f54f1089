#include "platform/linux/Workspace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/FourCharCode.h"

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

// "app[-<launcher>]-<id>-<random>.scope" or "app[-<launcher>]-<id>[@<random>].service", with
// '-' inside the id escaped as \x2d: the ids it may name, most likely first.
std::vector<std::string> appScopeCandidates(std::string unit) {
  if (unit.rfind("app-", 0) != 0) {
    return {};
  }
  unit.erase(0, 4);
  if (unit.size() > 6 && unit.ends_with(".scope")) {
    unit.erase(unit.size() - 6);
    const auto dash = unit.rfind('-');
    if (dash == std::string::npos) {
      return {};
    }
    unit.erase(dash);
  } else if (unit.size() > 8 && unit.ends_with(".service")) {
    unit.erase(unit.size() - 8);
    if (const auto at = unit.find('@'); at != std::string::npos) {
      unit.erase(at);
    }
  } else {
    return {};
  }
  auto unescape = [](const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text.compare(at, 4, "\\x2d") == 0) {
        plain += '-';
        at += 3;
      } else {
        plain += text[at];
      }
    }
    return plain;
  };
  std::vector<std::string> candidates;
  if (const auto dash = unit.find('-'); dash != std::string::npos) {
    candidates.push_back(unescape(unit.substr(dash + 1)));  // after the launcher
  }
  candidates.push_back(unescape(unit));
  return candidates;
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
  const std::string stat = readFile(directory / "stat");
  const auto close = stat.rfind(')');
  const auto open = stat.find('(');
  if (close == std::string::npos || open == std::string::npos) {
    processes_.erase(pid);
    return nullptr;
  }
  // After the name: state, parent, ... start time is the 20th field.
  std::istringstream fields(stat.substr(close + 1));
  std::string state;
  long long parent = 0;
  fields >> state >> parent;
  std::string skipped;
  for (int i = 0; i < 17; ++i) {
    fields >> skipped;
  }
  unsigned long long startTime = 0;
  fields >> startTime;
  if (!fields) {
    processes_.erase(pid);
    return nullptr;
  }
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
  record.parent = static_cast<pid_t>(parent);
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
    record.name = decodeUtf8Lossy(stat.substr(open + 1, close - open - 1));
  }
  record.entryGeneration = entries_.generation();
  record.entryID = record.uid == roots_.uid ? matchEntry(pid, record) : std::string();
  return &(processes_[pid] = std::move(record));
}

std::optional<std::string> Workspace::entryFromLauncher(pid_t pid) const {
  const std::string environment = readFile(procPath(pid) / "environ");
  std::string desktopFile;
  std::string launchedPID;
  std::size_t start = 0;
  while (start < environment.size()) {
    auto end = environment.find('\0', start);
    if (end == std::string::npos)
      end = environment.size();
    const std::string_view variable(environment.data() + start, end - start);
    if (variable.starts_with("GIO_LAUNCHED_DESKTOP_FILE=")) {
      desktopFile = variable.substr(26);
    } else if (variable.starts_with("GIO_LAUNCHED_DESKTOP_FILE_PID=")) {
      launchedPID = variable.substr(30);
    }
    start = end + 1;
  }
  // Children inherit the variables; only the launched process itself is the application.
  if (desktopFile.empty() || launchedPID != std::to_string(pid)) {
    return std::nullopt;
  }
  const auto stem = std::filesystem::path(desktopFile).stem().string();
  return entries_.byID(stem) != nullptr ? std::optional<std::string>(stem) : std::nullopt;
}

std::optional<std::string> Workspace::entryFromSandbox(pid_t pid) const {
  const std::string info = readFile(procPath(pid) / "root" / ".flatpak-info");
  if (const auto at = info.find("\nname="); at != std::string::npos) {
    const auto end = info.find('\n', at + 6);
    const std::string appID = info.substr(at + 6, end - at - 6);
    if (const auto* entry = entries_.byFlatpakID(appID)) {
      return entry->id;
    }
  }
  return std::nullopt;
}

std::optional<std::string> Workspace::entryFromAppScope(pid_t pid) const {
  std::istringstream cgroups(readFile(procPath(pid) / "cgroup"));
  std::string line;
  while (std::getline(cgroups, line)) {
    const std::string unit = line.substr(line.rfind('/') + 1);
    if (unit.rfind("snap.", 0) == 0) {
      // snap.<snap>.<app>-<random>.scope names the entry <snap>_<app>.
      const auto second = unit.find('.', 5);
      const auto dash = unit.rfind('-');
      if (second != std::string::npos && dash != std::string::npos && dash > second) {
        const std::string id =
            unit.substr(5, second - 5) + "_" + unit.substr(second + 1, dash - second - 1);
        if (entries_.byID(id) != nullptr) {
          return id;
        }
      }
    }
    for (const auto& candidate : appScopeCandidates(unit)) {
      if (const auto* entry = entries_.byFlatpakID(candidate)) {
        return entry->id;
      }
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
    if (!name.empty() && std::all_of(name.begin(), name.end(), ::isdigit)) {
      pids.push_back(static_cast<pid_t>(std::stol(name)));
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
