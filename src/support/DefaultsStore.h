#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/Logger.h"
#include "support/MainQueue.h"

namespace quellix {

// The user's preferences: one JSON object of plain keys in a file that is replaced atomically
// on every write, so a crash never leaves half a file behind.
//
// A value of the wrong type never stops a start: the typed reads below fall back to their
// default and say so once per key at level error, while the value stays in the file (and the
// other keys keep working) until that key is written anew.
class DefaultsStore {
 public:
  // Loads the file at `path`. A missing file means no preferences; a corrupt, unreadable,
  // oversized or too deeply nested one is logged, moved aside and treated as empty, so the
  // user's data is never overwritten.
  DefaultsStore(std::filesystem::path path, std::shared_ptr<LogSink> logs);
  // With a queue, writes to disk are coalesced: a change is visible at once and reaches the
  // file within kWriteDelay, so a slider drag is not a disk write per step.
  DefaultsStore(std::filesystem::path path, MainQueue& queue, std::shared_ptr<LogSink> logs);
  ~DefaultsStore();
  DefaultsStore(const DefaultsStore&) = delete;
  DefaultsStore& operator=(const DefaultsStore&) = delete;

  static constexpr Duration kWriteDelay = std::chrono::milliseconds(500);
  // Real preferences are a few kilobytes; a file beyond this is not ours, and reading no more
  // than this keeps a start quick whatever lies at the path.
  static constexpr std::size_t kMaxFileSize = 1024 * 1024;
  // Our keys nest two deep; the limit keeps copying and writing the values off deep recursion.
  static constexpr int kMaxNesting = 32;

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
  // A whole number is whole: a fraction, or a number too large to be held exactly, reads as 0
  // and is reported, so what is written back is what was read.
  std::int64_t integer(std::string_view key) const;
  double doubleValue(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;

  // Says once per setting (a key, or one entry of a dictionary under it) that its stored
  // `value` is not `expected` and is ignored.
  void reportBadValue(std::string_view key, const nlohmann::json& value, std::string_view expected,
                      std::string_view entry = {}) const;

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
  mutable std::set<std::string> reported_;
  Logger logger_;
};

// Replaces `path` with `contents` in one step: written aside, synced, renamed into place.
// Throws TextError on failure; the old file is then untouched.
void writeFileAtomically(const std::filesystem::path& path, std::string_view contents);

}  // namespace quellix
