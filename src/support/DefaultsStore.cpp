#include "support/DefaultsStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/TextError.h"
#include "support/UtcTime.h"

namespace quellix {
namespace {

std::string systemErrorText(int error) {
  return std::strerror(error);
}

std::optional<double> numberOf(const nlohmann::json& value) {
  if (value.is_boolean()) {
    return value.get<bool>() ? 1.0 : 0.0;
  }
  if (value.is_number()) {
    return value.get<double>();
  }
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    double parsed = 0;
    const auto* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, parsed);
    if (result.ec == std::errc() && result.ptr == end) {
      return parsed;
    }
  }
  return std::nullopt;
}

// Up to `limit` bytes of an open file. Anything but a regular file is refused, so a pipe or a
// device at the path cannot stall the start. Throws TextError saying what is wrong.
std::string readAtMost(int fd, std::size_t limit) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    throw TextError("it cannot be read (" + systemErrorText(errno) + ")");
  }
  if (!S_ISREG(info.st_mode)) {
    throw TextError("it is not a regular file");
  }
  std::string bytes(std::min<std::size_t>(limit, static_cast<std::size_t>(info.st_size) + 1), '\0');
  std::size_t filled = 0;
  while (true) {
    if (filled == bytes.size()) {
      if (bytes.size() >= limit) {
        break;
      }
      bytes.resize(std::min(limit, bytes.size() * 2));  // the file grew while we read
    }
    const ssize_t got = ::read(fd, bytes.data() + filled, bytes.size() - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      throw TextError("it cannot be read (" + systemErrorText(errno) + ")");
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  bytes.resize(filled);
  return bytes;
}

// Whether brackets outside of strings open more than `limit` levels.
bool nestsDeeperThan(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) {
        return true;
      }
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

// A value as it may appear in a log line: compact, and cut short when long.
std::string excerpt(const nlohmann::json& value) {
  constexpr std::size_t kMaxExcerpt = 80;
  std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (text.size() <= kMaxExcerpt) {
    return text;
  }
  std::size_t cut = kMaxExcerpt;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
    --cut;  // not inside a UTF-8 sequence
  }
  return text.substr(0, cut) + "…";
}

// rename() that fails with file_exists instead of replacing what is at `to`.
bool renameWithoutReplacing(const std::filesystem::path& from, const std::filesystem::path& to,
                            std::error_code& error) {
  error.clear();
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    error = std::error_code(errno, std::generic_category());
    return false;
  }
  // A file system without the flag: check first, and accept the small race.
  if (std::filesystem::exists(to, error) || error) {
    error = error ? error : std::make_error_code(std::errc::file_exists);
    return false;
  }
  std::filesystem::rename(from, to, error);
  return !error;
}

}  // namespace

void writeFileAtomically(const std::filesystem::path& path, std::string_view contents) {
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  std::string temporary = path.string() + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) {
    throw TextError("Cannot create " + temporary + ": " + systemErrorText(errno));
  }
  const char* data = contents.data();
  std::size_t left = contents.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      const int writeError = errno;
      ::close(fd);
      ::unlink(temporary.c_str());
      throw TextError("Cannot write " + temporary + ": " + systemErrorText(writeError));
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    const int syncError = errno;
    ::unlink(temporary.c_str());
    throw TextError("Cannot save " + temporary + ": " + systemErrorText(syncError));
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const int renameError = errno;
    ::unlink(temporary.c_str());
    throw TextError("Cannot replace " + path.string() + ": " + systemErrorText(renameError));
  }
  // The rename itself must reach the disk, or a crash could bring the old file back.
  const int directory = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY);
  if (directory >= 0) {
    ::fsync(directory);
    ::close(directory);
  }
}

DefaultsStore::DefaultsStore(std::filesystem::path path, std::shared_ptr<LogSink> logs)
    : path_(std::move(path)), logger_(std::move(logs), "Defaults") {
  load();
}

DefaultsStore::DefaultsStore(std::filesystem::path path, MainQueue& queue,
                             std::shared_ptr<LogSink> logs)
    : path_(std::move(path)), queue_(&queue), logger_(std::move(logs), "Defaults") {
  load();
}

DefaultsStore::~DefaultsStore() {
  pendingWrite_.cancel();
  flush();
}

void DefaultsStore::changed() {
  dirty_ = true;
  if (queue_ == nullptr) {
    flush();
    return;
  }
  if (!pendingWrite_.isValid() || pendingWrite_.isCancelled()) {
    pendingWrite_ = queue_->after(kWriteDelay, [this] {
      pendingWrite_ = TaskHandle();
      flush();
    });
  }
}

void DefaultsStore::flush() {
  if (!dirty_) {
    return;
  }
  dirty_ = false;
  save();
}

std::filesystem::path DefaultsStore::standardPath() {
  std::filesystem::path base;
  if (const char* configHome = std::getenv("XDG_CONFIG_HOME"); configHome && *configHome == '/') {
    base = configHome;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = std::filesystem::path(home) / ".config";
  } else {
    base = "/tmp";
  }
  return base / "quellix" / "preferences.json";
}

void DefaultsStore::load() {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT && errno != ENOTDIR) {
      moveAside("it cannot be read (" + systemErrorText(errno) + ")");
    }
    return;  // nothing there: the first start
  }
  std::string contents;
  try {
    contents = readAtMost(fd, kMaxFileSize + 1);
  } catch (const TextError& problem) {
    ::close(fd);
    moveAside(problem.description());
    return;
  }
  ::close(fd);
  if (contents.size() > kMaxFileSize) {
    moveAside("it is larger than " + std::to_string(kMaxFileSize / 1024) + " KiB");
    return;
  }
  if (nestsDeeperThan(contents, kMaxNesting)) {
    moveAside("it nests deeper than " + std::to_string(kMaxNesting) + " levels");
    return;
  }
  nlohmann::json parsed = nlohmann::json::parse(contents, nullptr, false);
  if (parsed.is_discarded()) {
    moveAside("it is not valid JSON");
    return;
  }
  if (!parsed.is_object()) {
    moveAside("it does not hold a JSON object");
    return;
  }
  values_ = std::move(parsed);
}

void DefaultsStore::moveAside(const std::string& reason) {
  const std::string stem = path_.string() + ".corrupt-" + currentUtcTime("%Y%m%dT%H%M%SZ");
  std::filesystem::path aside = stem;
  std::error_code error;
  // Never over an earlier bad file: two bad starts within a second keep both.
  for (int attempt = 2;
       !renameWithoutReplacing(path_, aside, error) && error == std::errc::file_exists; ++attempt) {
    aside = stem + "-" + std::to_string(attempt);
  }
  if (error) {
    // Keep our hands off a file we could neither read nor move: better to lose this run's
    // changes than the user's preferences.
    writable_ = false;
    logger_.error("Preferences " + path_.string() + " ignored because " + reason +
                  "; it could not be moved aside (" + error.message() +
                  "), so changes will not be saved");
    return;
  }
  logger_.error("Preferences " + path_.string() + " ignored because " + reason + "; kept as " +
                aside.string());
}

void DefaultsStore::reportBadValue(std::string_view key, const nlohmann::json& value,
                                   std::string_view expected, std::string_view entry) const {
  // Appended piece by piece: GCC 12's optimiser misreads a literal prepended to a string.
  std::string setting;
  if (!entry.empty()) {
    setting.append("entry \"").append(entry).append("\" of ");
  }
  setting.append("\"").append(key).append("\"");
  if (!reported_.insert(setting).second) {
    return;
  }
  logger_.error("Preferences " + path_.string() + ": " + setting + " ignored because " +
                excerpt(value) + " is not " + std::string(expected));
}

void DefaultsStore::save() {
  if (!writable_) {
    return;
  }
  try {
    ++diskWrites_;
    writeFileAtomically(path_, values_.dump(2) + "\n");
  } catch (const TextError& error) {
    logger_.error("Saving preferences failed: " + error.description());
  }
}

const nlohmann::json* DefaultsStore::object(std::string_view key) const {
  const auto found = values_.find(key);
  return found == values_.end() ? nullptr : &*found;
}

std::optional<std::vector<std::string>> DefaultsStore::stringArray(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  const auto isString = [](const nlohmann::json& element) { return element.is_string(); };
  if (!value->is_array() || !std::all_of(value->begin(), value->end(), isString)) {
    reportBadValue(key, *value, "a list of texts");
    return std::nullopt;
  }
  return value->get<std::vector<std::string>>();
}

std::optional<nlohmann::json::object_t> DefaultsStore::dictionary(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (!value->is_object()) {
    reportBadValue(key, *value, "a dictionary");
    return std::nullopt;
  }
  return value->get<nlohmann::json::object_t>();
}

std::int64_t DefaultsStore::integer(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return 0;
  }
  if (value->is_number_integer() &&
      (!value->is_number_unsigned() ||
       value->get<std::uint64_t>() <= std::uint64_t(std::numeric_limits<std::int64_t>::max()))) {
    return value->get<std::int64_t>();
  }
  // Below 2^53 a double holds every whole number exactly, and so does the count one more than
  // it; above, a count read from the file and written back could come out as another number.
  constexpr double kExactLimit = 9007199254740992.0;
  const auto number = numberOf(*value);
  if (!number || !(std::abs(*number) < kExactLimit) || std::trunc(*number) != *number) {
    reportBadValue(key, *value, "a whole number");
    return 0;
  }
  return static_cast<std::int64_t>(*number);
}

double DefaultsStore::doubleValue(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return 0.0;
  }
  const auto number = numberOf(*value);
  if (!number || !std::isfinite(*number)) {
    reportBadValue(key, *value, "a number");
    return 0.0;
  }
  return *number;
}

bool DefaultsStore::boolean(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return false;
  }
  if (value->is_string()) {
    const auto& text = value->get_ref<const std::string&>();
    if (text == "true" || text == "YES" || text == "yes") {
      return true;
    }
    if (text == "false" || text == "NO" || text == "no") {
      return false;
    }
  }
  const auto number = numberOf(*value);
  if (!number) {
    reportBadValue(key, *value, "a Boolean");
    return false;
  }
  return *number != 0.0;
}

std::optional<std::string> DefaultsStore::string(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (!value->is_string()) {
    reportBadValue(key, *value, "a text");
    return std::nullopt;
  }
  return value->get<std::string>();
}

void DefaultsStore::set(std::string_view key, nlohmann::json value) {
  auto& slot = values_[std::string(key)];
  if (slot == value) {
    return;
  }
  slot = std::move(value);
  changed();
}

void DefaultsStore::remove(std::string_view key) {
  if (values_.erase(std::string(key)) > 0) {
    changed();
  }
}

}  // namespace quellix
