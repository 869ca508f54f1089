#include "support/DefaultsStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

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

DefaultsStore::DefaultsStore(std::filesystem::path path) : path_(std::move(path)) {
  load();
}

DefaultsStore::DefaultsStore(std::filesystem::path path, MainQueue& queue)
    : path_(std::move(path)), queue_(&queue) {
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
  std::error_code error;
  if (!std::filesystem::exists(path_, error)) {
    return;
  }
  std::ifstream file(path_, std::ios::binary);
  if (!file) {
    moveAside("it cannot be read (" + systemErrorText(errno) + ")");
    return;
  }
  std::stringstream contents;
  contents << file.rdbuf();
  nlohmann::json parsed = nlohmann::json::parse(contents.str(), nullptr, false);
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
  const std::filesystem::path aside =
      path_.string() + ".corrupt-" + currentUtcTime("%Y%m%dT%H%M%SZ");
  std::error_code error;
  std::filesystem::rename(path_, aside, error);
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
  if (value == nullptr || !value->is_array()) {
    return std::nullopt;
  }
  std::vector<std::string> strings;
  for (const auto& element : *value) {
    if (!element.is_string()) {
      return std::nullopt;
    }
    strings.push_back(element.get<std::string>());
  }
  return strings;
}

std::optional<nlohmann::json::object_t> DefaultsStore::dictionary(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr || !value->is_object()) {
    return std::nullopt;
  }
  return value->get<nlohmann::json::object_t>();
}

std::int64_t DefaultsStore::integer(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr) {
    return 0;
  }
  if (value->is_number_integer()) {
    return value->get<std::int64_t>();
  }
  const auto number = numberOf(*value);
  return number && std::isfinite(*number) && std::abs(*number) < 9.2e18
             ? static_cast<std::int64_t>(*number)
             : 0;
}

double DefaultsStore::doubleValue(std::string_view key) const {
  const auto* value = object(key);
  return value == nullptr ? 0.0 : numberOf(*value).value_or(0.0);
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
  }
  return numberOf(*value).value_or(0.0) != 0.0;
}

std::optional<std::string> DefaultsStore::string(std::string_view key) const {
  const auto* value = object(key);
  if (value == nullptr || !value->is_string()) {
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
