#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "desktop/apps/Workspace.h"
#include "harness/TestSupport.h"

namespace quellix::testing {

// A /proc and an XDG data dir in a temporary folder, filled by the test.
class FakeSystem {
 public:
  struct Process {
    pid_t pid;
    pid_t parent = 1;
    std::string executable;  // exe link target's name; empty: no link (comm is used)
    std::string comm = "comm";
    unsigned long long startTime = 1000;
    std::string environment;  // NUL-separated
    std::string cgroup = "0::/user.slice\n";
  };

  void addProcess(const Process& process) {
    const auto dir = proc() / std::to_string(process.pid);
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "stat") << process.pid << " (" << process.comm << ") S " << process.parent
                                << " 1 1 0 -1 4194560 100 0 0 0 1 1 0 0 20 0 1 0 "
                                << process.startTime << " 1000 100\n";
    std::ofstream(dir / "comm") << process.comm << "\n";
    if (!process.executable.empty()) {
      std::filesystem::create_symlink("/usr/bin/" + process.executable, dir / "exe");
    }
    std::ofstream(dir / "environ") << process.environment;
    std::ofstream(dir / "cgroup") << process.cgroup;
  }

  void removeProcess(pid_t pid) { std::filesystem::remove_all(proc() / std::to_string(pid)); }

  void addDesktopEntry(const std::string& fileName, const std::string& contents) {
    std::filesystem::create_directories(applications());
    std::ofstream(applications() / fileName) << contents;
  }

  void addApplication(const std::string& id, const std::string& name, const std::string& exec,
                      const std::string& extra = "") {
    addDesktopEntry(id + ".desktop", "[Desktop Entry]\nType=Application\nName=" + name +
                                         "\nExec=" + exec + "\nIcon=" + id + "\n" + extra);
  }

  Workspace::Roots roots() const {
    return {.proc = proc(),
            .dataDirs = {directory.path() / "data"},
            .uid = ::getuid(),
            .locale = "de_DE.UTF-8"};
  }

  std::filesystem::path proc() const { return directory.path() / "proc"; }
  std::filesystem::path applications() const { return directory.path() / "data" / "applications"; }

 private:
  TemporaryDirectory directory;
};

}  // namespace quellix::testing
