#include "desktop/login/AutostartLoginItem.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "desktop/apps/DesktopEntries.h"
#include "support/BuildInfo.h"
#include "support/DefaultsStore.h"
#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kAutostartFolder = "autostart";
constexpr const char* kEntryName = "Quellix";
constexpr const char* kDefaultConfigDirs = "/etc/xdg";

std::string entryFileName() {
  return std::string(build::kBundleIdentifier) + ".desktop";
}

std::optional<std::filesystem::path> absoluteFromEnvironment(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr || *value != '/') {
    return std::nullopt;  // relative values are to be ignored
  }
  return std::filesystem::path(value);
}

std::filesystem::path homeFolder() {
  if (auto home = absoluteFromEnvironment("HOME")) {
    return *home;
  }
  if (const passwd* user = ::getpwuid(::getuid()); user != nullptr && user->pw_dir != nullptr) {
    return user->pw_dir;
  }
  return "/";
}

std::vector<std::filesystem::path> configDirsFromEnvironment() {
  const char* value = std::getenv("XDG_CONFIG_DIRS");
  std::string list = value != nullptr && *value != '\0' ? value : kDefaultConfigDirs;
  std::vector<std::filesystem::path> dirs;
  std::stringstream stream(list);
  std::string dir;
  while (std::getline(stream, dir, ':')) {
    if (!dir.empty() && dir.front() == '/') {
      dirs.emplace_back(dir);
    }
  }
  return dirs;
}

std::filesystem::path thisProgram() {
  // Inside an AppImage the running file sits in a mount that is gone after logout; the
  // AppImage file itself is what must be started.
  if (const char* appImage = std::getenv("APPIMAGE"); appImage != nullptr && *appImage != '\0') {
    return appImage;
  }
  std::error_code error;
  auto path = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : path;
}

// Where the shell would find a program named without a folder.
std::optional<std::filesystem::path> searchPath(const std::string& name) {
  const char* value = std::getenv("PATH");
  std::stringstream stream(value != nullptr ? value : "");
  std::string dir;
  while (std::getline(stream, dir, ':')) {
    const auto candidate = std::filesystem::path(dir.empty() ? "." : dir) / name;
    if (::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string valueOf(const std::map<std::string, std::string>& values, const std::string& key) {
  const auto found = values.find(key);
  return found == values.end() ? std::string() : found->second;
}

bool isPresent(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

}  // namespace

AutostartLoginItem::AutostartLoginItem(std::filesystem::path configHome,
                                       std::vector<std::filesystem::path> configDirs,
                                       std::filesystem::path program)
    : configHome_(std::move(configHome)),
      configDirs_(std::move(configDirs)),
      program_(std::move(program)) {}

std::shared_ptr<AutostartLoginItem> AutostartLoginItem::forThisProgram() {
  auto configHome = absoluteFromEnvironment("XDG_CONFIG_HOME").value_or(homeFolder() / ".config");
  return std::make_shared<AutostartLoginItem>(std::move(configHome), configDirsFromEnvironment(),
                                              thisProgram());
}

std::filesystem::path AutostartLoginItem::userEntry() const {
  return configHome_ / kAutostartFolder / entryFileName();
}

std::optional<std::filesystem::path> AutostartLoginItem::systemEntry() const {
  for (const auto& dir : configDirs_) {
    if (auto path = dir / kAutostartFolder / entryFileName(); isPresent(path)) {
      return path;
    }
  }
  return std::nullopt;
}

LoginItemStatus AutostartLoginItem::status() const {
  // The user's entry, when there is one, stands for every entry of the same name.
  std::optional<std::filesystem::path> entry = userEntry();
  if (!isPresent(*entry)) {
    entry = systemEntry();
  }
  if (!entry) {
    return LoginItemStatus::notRegistered;
  }
  const auto values = readDesktopEntryGroup(*entry);
  if (!values || valueOf(*values, "Hidden") == "true" ||
      valueOf(*values, "X-GNOME-Autostart-enabled") == "false" ||
      !startsThisProgram(valueOf(*values, "Exec"))) {
    return LoginItemStatus::notRegistered;
  }
  return LoginItemStatus::enabled;
}

bool AutostartLoginItem::startsThisProgram(const std::string& exec) const {
  const auto words = execArguments(exec);
  if (words.empty() || program_.empty()) {
    return false;
  }
  std::filesystem::path started = words.front();
  if (started.native().find('/') == std::string::npos) {
    auto found = searchPath(started);
    if (!found) {
      return false;
    }
    started = *found;
  }
  if (started == program_) {
    return true;
  }
  std::error_code error;
  return std::filesystem::equivalent(started, program_, error) && !error;
}

void AutostartLoginItem::registerItem() {
  if (program_.empty()) {
    throw TextError("Could not write the autostart entry " + userEntry().string() +
                    ": the path of this program is unknown");
  }
  write(
      "[Desktop Entry]\n"
      "Type=Application\n"
      "Name=" +
      std::string(kEntryName) +
      "\n"
      "Comment=Lautstärke und Stummschaltung pro Anwendung\n"
      "Exec=" +
      execArgument(program_.string()) +
      "\n"
      "Terminal=false\n"
      "X-GNOME-Autostart-enabled=true\n");
}

void AutostartLoginItem::unregisterItem() {
  if (systemEntry()) {
    // A system-wide entry cannot be removed by the user, only hidden by one of the same name.
    write(
        "[Desktop Entry]\n"
        "Type=Application\n"
        "Name=" +
        std::string(kEntryName) +
        "\n"
        "Exec=" +
        execArgument(program_.empty() ? std::string("quellix") : program_.string()) +
        "\n"
        "Hidden=true\n");
    return;
  }
  std::error_code error;
  std::filesystem::remove(userEntry(), error);
  if (error) {
    throw TextError("Could not remove the autostart entry " + userEntry().string() + ": " +
                    error.message());
  }
}

void AutostartLoginItem::write(const std::string& contents) const {
  const auto path = userEntry();
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  if (error) {
    throw TextError("Could not write the autostart entry " + path.string() + ": " +
                    error.message());
  }
  try {
    writeFileAtomically(path, contents);
  } catch (const TextError& failure) {
    throw TextError("Could not write the autostart entry " + path.string() + " (" +
                    failure.description() + ")");
  }
}

}  // namespace quellix
