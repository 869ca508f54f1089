#include "desktop/apps/DesktopEntries.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace quellix {
namespace {

std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The program of an Exec line: its first word, past "env VAR=value" prefixes.
std::string programOf(const std::string& exec) {
  const auto words = execArguments(exec);
  std::size_t at = 0;
  if (at < words.size() && std::filesystem::path(words[at]).filename() == "env") {
    ++at;
    while (at < words.size() && words[at].find('=') != std::string::npos) {
      ++at;
    }
  }
  return at < words.size() ? std::filesystem::path(words[at]).filename().string() : std::string();
}

// Undoes the escapes every string value may carry: \s, \n, \t, \r and \\.
std::string unescapedValue(const std::string& value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      text += value[i];
      continue;
    }
    switch (const char next = value[++i]) {
      case 's':
        text += ' ';
        break;
      case 'n':
        text += '\n';
        break;
      case 't':
        text += '\t';
        break;
      case 'r':
        text += '\r';
        break;
      case '\\':
        text += '\\';
        break;
      default:
        text += '\\';
        text += next;
        break;
    }
  }
  return text;
}

std::string withPercentSignsUnescaped(const std::string& word) {
  std::string text;
  for (std::size_t i = 0; i < word.size(); ++i) {
    text += word[i];
    if (word[i] == '%' && i + 1 < word.size() && word[i + 1] == '%') {
      ++i;
    }
  }
  return text;
}

// Candidate keys for a localized value, most specific first: lang_COUNTRY@MODIFIER,
// lang_COUNTRY, lang@MODIFIER, lang.
std::vector<std::string> localeKeys(const std::string& locale) {
  std::string lang = locale;
  std::string modifier;
  if (const auto at = lang.find('@'); at != std::string::npos) {
    modifier = lang.substr(at);
    lang.erase(at);
  }
  if (const auto dot = lang.find('.'); dot != std::string::npos) {
    lang.erase(dot);
  }
  std::string country;
  if (const auto underscore = lang.find('_'); underscore != std::string::npos) {
    country = lang.substr(underscore);
    lang.erase(underscore);
  }
  std::vector<std::string> keys;
  if (lang.empty() || lang == "C" || lang == "POSIX") {
    return keys;
  }
  if (!country.empty() && !modifier.empty())
    keys.push_back(lang + country + modifier);
  if (!country.empty())
    keys.push_back(lang + country);
  if (!modifier.empty())
    keys.push_back(lang + modifier);
  keys.push_back(lang);
  return keys;
}

}  // namespace

std::string messageLocale() {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (const char* value = std::getenv(variable); value != nullptr && *value != '\0') {
      return value;
    }
  }
  return "C";
}

std::map<std::string, std::string> parseDesktopEntryGroup(std::string_view contents) {
  std::istringstream file{std::string(contents)};
  std::map<std::string, std::string> values;
  bool inMainGroup = false;
  std::string line;
  while (std::getline(file, line)) {
    line = trimmed(line);
    if (line.empty() || line.front() == '#') {
      continue;
    }
    if (line.front() == '[') {
      inMainGroup = line == "[Desktop Entry]";
      continue;
    }
    const auto equals = line.find('=');
    if (!inMainGroup || equals == std::string::npos) {
      continue;
    }
    values.emplace(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
  }
  return values;
}

static std::optional<std::string> readDesktopEntryFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::optional<std::map<std::string, std::string>> readDesktopEntryGroup(
    const std::filesystem::path& path) {
  const auto contents = readDesktopEntryFile(path);
  if (!contents) {
    return std::nullopt;
  }
  return parseDesktopEntryGroup(*contents);
}

std::vector<std::string> execArguments(const std::string& exec) {
  const std::string text = unescapedValue(exec);
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  bool inWord = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '\\' && i + 1 < text.size()) {
        word += text[++i];
      } else if (c == '"') {
        quoted = false;
      } else {
        word += c;
      }
    } else if (c == '"') {
      quoted = true;
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) {
        words.push_back(withPercentSignsUnescaped(word));
        word.clear();
        inWord = false;
      }
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) {
    words.push_back(withPercentSignsUnescaped(word));
  }
  return words;
}

std::string execArgument(const std::string& word) {
  // Characters that make the shell-like reading of Exec treat a word specially.
  constexpr std::string_view kReserved = " \t\n\"'\\><~|&;$*?#()`";
  const bool needsQuotes = word.empty() || word.find_first_of(kReserved) != std::string::npos;
  std::string quoted = needsQuotes ? "\"" : "";
  for (const char c : word) {
    if (needsQuotes && (c == '"' || c == '`' || c == '$' || c == '\\')) {
      quoted += '\\';
    }
    quoted += c;
    if (c == '%') {
      quoted += '%';
    }
  }
  if (needsQuotes) {
    quoted += '"';
  }
  // The value as a whole is a string, whose own escapes come on top of the quoting.
  return escapedValue(quoted);
}

std::string escapedValue(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\t':
        escaped += "\\t";
        break;
      case '\r':
        escaped += "\\r";
        break;
      default:
        escaped += c;
        break;
    }
  }
  return escaped;
}

std::optional<DesktopEntry> DesktopEntryIndex::parse(const std::filesystem::path& path,
                                                     std::string id, const std::string& locale) {
  const auto contents = readDesktopEntryFile(path);
  if (!contents) {
    return std::nullopt;
  }
  return parseContents(*contents, path, std::move(id), locale);
}

std::optional<DesktopEntry> DesktopEntryIndex::parseContents(std::string_view contents,
                                                             const std::filesystem::path& path,
                                                             std::string id,
                                                             const std::string& locale) {
  const auto values = parseDesktopEntryGroup(contents);
  auto value = [&](const std::string& key) {
    const auto found = values.find(key);
    return found == values.end() ? std::string() : found->second;
  };
  if (value("Type") != "Application" || value("Hidden") == "true" || value("Name").empty()) {
    return std::nullopt;
  }
  DesktopEntry entry;
  entry.id = std::move(id);
  entry.path = path;
  entry.name = value("Name");
  for (const auto& key : localeKeys(locale)) {
    if (const auto localized = value("Name[" + key + "]"); !localized.empty()) {
      entry.name = localized;
      break;
    }
  }
  entry.icon = value("Icon");
  entry.executable = programOf(value("Exec"));
  entry.tryExecutable = std::filesystem::path(value("TryExec")).filename().string();
  entry.windowClass = lowerCased(value("StartupWMClass"));
  entry.flatpakID = value("X-Flatpak");
  return entry;
}

DesktopEntryIndex::DesktopEntryIndex(std::vector<std::filesystem::path> dataDirs,
                                     std::string locale)
    : dataDirs_(std::move(dataDirs)), locale_(std::move(locale)) {}

std::map<std::filesystem::path, std::filesystem::file_time_type> DesktopEntryIndex::folderTimes()
    const {
  std::map<std::filesystem::path, std::filesystem::file_time_type> times;
  std::vector<std::filesystem::path> folders = watchedFolders_;
  for (const auto& dataDir : dataDirs_) {
    folders.push_back(dataDir / "applications");
  }
  for (const auto& folder : folders) {
    std::error_code error;
    const auto time = std::filesystem::last_write_time(folder, error);
    if (!error) {
      times[folder] = time;
    }
  }
  return times;
}

bool DesktopEntryIndex::refreshIfChanged() {
  auto times = folderTimes();
  if (built_ && times == seenTimes_) {
    return false;
  }
  rebuild();
  seenTimes_ = folderTimes();
  return true;
}

void DesktopEntryIndex::rebuild() {
  entries_.clear();
  byID_.clear();
  byExecutable_.clear();
  byFlatpakID_.clear();
  watchedFolders_.clear();
  for (const auto& dataDir : dataDirs_) {
    const auto applications = dataDir / "applications";
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (std::filesystem::recursive_directory_iterator it(applications, error), end;
         !error && it != end; it.increment(error)) {
      if (it->is_directory(error)) {
        watchedFolders_.push_back(it->path());
      } else if (it->path().extension() == ".desktop" && it->is_regular_file(error)) {
        files.push_back(it->path());
      }
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      // The id is the path below applications/ with '/' turned into '-'.
      std::string id = std::filesystem::relative(file, applications, error).string();
      std::replace(id.begin(), id.end(), '/', '-');
      id.erase(id.size() - std::string(".desktop").size());
      if (byID_.count(id) > 0) {
        continue;  // an earlier data dir already has it
      }
      auto entry = parse(file, id, locale_);
      if (!entry) {
        continue;
      }
      const std::size_t index = entries_.size();
      byID_.emplace(entry->id, index);
      for (const auto& name : {entry->executable, entry->tryExecutable, entry->windowClass}) {
        if (!name.empty()) {
          byExecutable_.emplace(lowerCased(name), index);
        }
      }
      if (!entry->flatpakID.empty()) {
        byFlatpakID_.emplace(entry->flatpakID, index);
      }
      entries_.push_back(std::move(*entry));
    }
  }
  built_ = true;
  ++generation_;
}

const DesktopEntry* DesktopEntryIndex::byID(const std::string& id) const {
  const auto found = byID_.find(id);
  return found == byID_.end() ? nullptr : &entries_[found->second];
}

const DesktopEntry* DesktopEntryIndex::byExecutable(const std::string& name) const {
  const auto found = byExecutable_.find(lowerCased(name));
  return found == byExecutable_.end() ? nullptr : &entries_[found->second];
}

const DesktopEntry* DesktopEntryIndex::byFlatpakID(const std::string& appID) const {
  const auto found = byFlatpakID_.find(appID);
  if (found != byFlatpakID_.end()) {
    return &entries_[found->second];
  }
  return byID(appID);
}

}  // namespace quellix
