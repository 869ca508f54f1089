#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The per-process files of /proc the workspace reads, parsed from their bytes alone.
namespace quellix::ProcFiles {

// What /proc/<pid>/stat says about a process.
struct Stat {
  std::string name;  // the kernel's short name, as raw bytes
  pid_t parent = 0;
  unsigned long long startTime = 0;
};

// None when the text is not a stat line (a process that is gone reads as empty).
std::optional<Stat> parseStat(std::string_view text);

// The desktop file id a launcher put into /proc/<pid>/environ, when `pid` is the process it
// launched; children inherit the variables and get none.
std::optional<std::string> launchedDesktopID(std::string_view environment, pid_t pid);

// The application id in a Flatpak sandbox's .flatpak-info.
std::optional<std::string> flatpakAppID(std::string_view info);

// An entry id a line of /proc/<pid>/cgroup may name.
struct CgroupCandidate {
  enum class Kind {
    desktopID,  // a Snap's <snap>_<app>, a desktop file id as it stands
    appID,      // from a systemd app scope or service: a Flatpak app id or a desktop file id
  };
  Kind kind;
  std::string id;

  friend bool operator==(const CgroupCandidate&, const CgroupCandidate&) = default;
};

// Every candidate of every line, most likely first.
std::vector<CgroupCandidate> cgroupCandidates(std::string_view cgroup);

}  // namespace quellix::ProcFiles
