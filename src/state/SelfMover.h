#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/Logger.h"
#include "support/MainQueue.h"

namespace quellix {
class MoveAlerts;
}

// What the user downloaded, and so what gets moved, is one of two things:
// - the AppImage file, which names itself in $APPIMAGE while it runs; its copy goes to
//   ~/Applications/Quellix.AppImage;
// - the portable folder: the executable lives at <folder>/bin/quellix and <folder> holds the
//   marker file "quellix-portable"; the whole folder's copy goes to ~/Applications/Quellix/.
// A build tree or an installed package is neither, and nothing is offered there.
namespace quellix::SelfMover {

inline constexpr const char* kPortableMarker = "quellix-portable";
inline constexpr const char* kDesktopEntryName = "com.norvalin.quellix.desktop";
inline constexpr Duration kQuitGracePeriod = std::chrono::milliseconds(3000);

struct Bundle {
  enum class Kind { appImage, portableFolder };
  Kind kind;
  std::filesystem::path path;
  // The program to start, relative to `path`; empty when the bundle is the program itself.
  std::filesystem::path program;
};

// Starts the program at the given path without waiting for it, then calls `launched` (from
// any thread), whether or not the start worked.
using Launcher =
    std::function<void(const std::filesystem::path& program, std::function<void()> launched)>;

// Everything the move touches outside the process, so that tests can supply their own.
struct Environment {
  std::optional<Bundle> bundle;
  std::filesystem::path home;
  std::filesystem::path downloads;
  // $XDG_DATA_HOME: the copy's desktop entry goes into its "applications" folder.
  std::filesystem::path dataHome;
  // Any of these present means the user wants no desktop integration, and so no offer.
  std::vector<std::filesystem::path> optOutFiles;
  MoveAlerts& alerts;
  Launcher launch;
  MainQueue& queue;
  std::function<void()> quit;
  // Where a failed move is logged.
  std::shared_ptr<LogSink> logs;
  // Gives up this process's claim to be the one running instance, just before the copy
  // starts and makes its own; none when nothing claims.
  std::function<void()> releaseInstance = {};
};

// Offers to copy a program started from a download or removable media into ~/Applications.
// True only when the copy succeeded and this process is about to quit.
// For this process, with the program's main queue carrying the quit:
bool offerMoveIfNeeded(MainQueue& queue, MoveAlerts& alerts, std::shared_ptr<LogSink> logs,
                       std::function<void()> releaseInstance = {});
bool offerMoveIfNeeded(const Environment& environment);

// The bundle this process runs from: the AppImage named by `appImageVariable`, else the
// portable folder around `executable`, else none.
std::optional<Bundle> bundleFor(const std::optional<std::string>& appImageVariable,
                                const std::filesystem::path& executable);

// Where the copy of `bundle` goes.
std::filesystem::path destinationFor(const Bundle& bundle, const std::filesystem::path& home);

}  // namespace quellix::SelfMover
