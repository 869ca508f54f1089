#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "desktop/apps/DesktopEntries.h"

namespace quellix {

// A running application as the workspace reports it: a process of the user that was started
// as an installed application (a desktop entry).
struct RunningApplication {
  pid_t pid = 0;
  std::optional<std::filesystem::path> bundleURL;  // the desktop file
  std::optional<std::string> bundleIdentifier;     // the desktop file id
  std::optional<std::string> localizedName;
  std::string icon;  // icon theme name

  // A desktop entry stands behind it (agents and helpers have none).
  bool isProperApplication() const {
    return bundleURL.has_value() && bundleURL->extension() == ".desktop";
  }
};

// The user's running applications, found in /proc and matched to desktop entries: by the
// launcher's environment, the Flatpak or Snap app id, the systemd app scope, and finally the
// executable's name against Exec, TryExec and StartupWMClass. Of a chain of processes with
// the same entry only the topmost counts. Results are cached per process and start time, so
// a reused PID is never taken for the process it replaced.
class Workspace {
 public:
  struct Roots {
    std::filesystem::path proc = "/proc";
    std::vector<std::filesystem::path> dataDirs;
    uid_t uid = 0;
    std::string locale = "C";
  };

  // /proc, $XDG_DATA_HOME and $XDG_DATA_DIRS, this user, the message locale.
  static Roots systemRoots();

  explicit Workspace(Roots roots);

  // Picks up installed or removed applications; call once before a round of look-ups.
  void refresh();

  std::optional<RunningApplication> application(pid_t pid);
  // Every running application, by ascending PID.
  std::vector<RunningApplication> runningApplications();

  // The executable's file name, else the kernel's short name.
  std::optional<std::string> processName(pid_t pid);
  std::optional<pid_t> parentPID(pid_t pid);

  const Roots& roots() const { return roots_; }

 private:
  struct Process {
    std::size_t checkedInRound = 0;
    unsigned long long startTime = 0;
    pid_t parent = 0;
    uid_t uid = 0;
    std::string name;
    std::size_t entryGeneration = 0;
    std::string entryID;  // empty: no entry
  };

  const Process* process(pid_t pid);
  std::string matchEntry(pid_t pid, const Process& process) const;
  std::optional<std::string> entryFromLauncher(pid_t pid) const;
  std::optional<std::string> entryFromSandbox(pid_t pid) const;
  std::optional<std::string> entryFromAppScope(pid_t pid) const;
  std::filesystem::path procPath(pid_t pid) const { return roots_.proc / std::to_string(pid); }

  Roots roots_;
  DesktopEntryIndex entries_;
  std::unordered_map<pid_t, Process> processes_;
  // Within one round of look-ups a process is read from /proc once.
  std::size_t round_ = 1;
};

}  // namespace quellix
