#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quellix {

// One application's desktop entry.
struct DesktopEntry {
  std::string id;  // the desktop file id without ".desktop", e.g. "org.gnome.Nautilus"
  std::filesystem::path path;
  std::string name;        // localized
  std::string icon;        // icon theme name or path
  std::string executable;  // basename of Exec's program
  std::string tryExecutable;
  std::string windowClass;  // StartupWMClass, lower-cased
  std::string flatpakID;
};

// The applications installed in the XDG data dirs (earlier dirs win for the same id), with
// look-ups by id, executable and window class. Reloads itself when an applications folder
// changes.
class DesktopEntryIndex {
 public:
  DesktopEntryIndex(std::vector<std::filesystem::path> dataDirs, std::string locale);

  // Rebuilds when a folder changed since the last look. Returns whether it did.
  bool refreshIfChanged();

  const DesktopEntry* byID(const std::string& id) const;
  const DesktopEntry* byExecutable(const std::string& name) const;
  const DesktopEntry* byFlatpakID(const std::string& appID) const;
  std::size_t generation() const { return generation_; }
  std::size_t size() const { return entries_.size(); }

  // Parses one file; none when it is no application entry or is hidden.
  static std::optional<DesktopEntry> parse(const std::filesystem::path& path, std::string id,
                                           const std::string& locale);
  // The same from the file's contents.
  static std::optional<DesktopEntry> parseContents(std::string_view contents,
                                                   const std::filesystem::path& path,
                                                   std::string id, const std::string& locale);

 private:
  std::map<std::filesystem::path, std::filesystem::file_time_type> folderTimes() const;
  void rebuild();

  std::vector<std::filesystem::path> dataDirs_;
  std::string locale_;
  std::map<std::filesystem::path, std::filesystem::file_time_type> seenTimes_;
  // The folders to watch: each applications folder and its subfolders as last read. A new
  // subfolder changes its parent's time.
  std::vector<std::filesystem::path> watchedFolders_;
  std::vector<DesktopEntry> entries_;
  std::map<std::string, std::size_t> byID_;
  std::map<std::string, std::size_t> byExecutable_;
  std::map<std::string, std::size_t> byFlatpakID_;
  std::size_t generation_ = 0;
  bool built_ = false;
};

// The keys and values of a desktop file's [Desktop Entry] group as written (the first of a
// repeated key wins); none when the file cannot be read.
std::optional<std::map<std::string, std::string>> readDesktopEntryGroup(
    const std::filesystem::path& path);
// The same for a file's contents.
std::map<std::string, std::string> parseDesktopEntryGroup(std::string_view contents);

// The words of an Exec value: escapes undone, quotes removed, "%%" turned into "%". Field
// codes such as %U stay as they are.
std::vector<std::string> execArguments(const std::string& exec);

// One word for an Exec value, quoted and escaped where needed so that execArguments() reads
// it back unchanged. Every Exec value we write is made of these words.
std::string execArgument(const std::string& word);

// A string value as a desktop file holds it: backslashes, line breaks and tabs escaped.
std::string escapedValue(const std::string& text);

// The message locale from the environment (LC_ALL, LC_MESSAGES, LANG), e.g. "de_DE".
std::string messageLocale();

}  // namespace quellix
