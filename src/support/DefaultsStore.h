#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Logger.h"
#include "support/MainQueue.h"

namespace quellix {

// The user's preferences: one JSON object of plain keys in a file that is replaced atomically
// on every write, so a crash never leaves half a file behind.
class DefaultsStore {
 public:
  // Loads the file at `path`. A missing file means no preferences; a corrupt or unreadable one
  // is logged, moved aside and treated as empty, so the user's data is never overwritten.
  explicit DefaultsStore(std::filesystem::path path);
  // With a queue, writes to disk are coalesced: a change is visible at once and reaches the
  // file within kWriteDelay, so a slider drag is not a disk write per step.
  DefaultsStore(std::filesystem::path path, MainQueue& queue);
  ~DefaultsStore();
  DefaultsStore(const DefaultsStore&) = delete;
  DefaultsStore& operator=(const DefaultsStore&) = delete;

  static constexpr Duration kWriteDelay = std::chrono::milliseconds(500);

  // Writes pending changes now.
  void flush();
  std::size_t diskWrites() const { return diskWrites_; }

  // $XDG_CONFIG_HOME/quellix/preferences.json, with ~/.config as the usual fallback.
  static std::filesystem::path standardPath();

  const nlohmann::json* object(std::string_view key) const;
  // Present only when the value is an array whose every element is a string.
  std::optional<std::vector<std::string>> stringArray(std::string_view key) const;
  // Present only when the value is a dictionary.
  std::optional<nlohmann::json::object_t> dictionary(std::string_view key) const;
  // Numbers, Booleans and numeric strings convert; anything else reads as 0 / false / none.
  std::int64_t integer(std::string_view key) const;
  double doubleValue(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;

  void set(std::string_view key, nlohmann::json value);
  void remove(std::string_view key);

  const std::filesystem::path& path() const { return path_; }

 private:
  void load();
  void moveAside(const std::string& reason);
  void save();
  void changed();

  std::filesystem::path path_;
  MainQueue* queue_ = nullptr;
  bool dirty_ = false;
  TaskHandle pendingWrite_;
  std::size_t diskWrites_ = 0;
  nlohmann::json values_ = nlohmann::json::object();
  bool writable_ = true;
  Logger logger_{"Defaults"};
};

// Replaces `path` with `contents` in one step: written aside, synced, renamed into place.
// Throws TextError on failure; the old file is then untouched.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents);

}  // namespace quellix
