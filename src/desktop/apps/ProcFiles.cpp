#include "desktop/apps/ProcFiles.h"

#include <filesystem>
#include <sstream>

namespace quellix::ProcFiles {
namespace {

// "app[-<launcher>]-<id>-<random>.scope" or "app[-<launcher>]-<id>[@<random>].service", with
// '-' inside the id escaped as \x2d: the ids it may name, most likely first.
std::vector<std::string> appScopeCandidates(std::string unit) {
  if (unit.rfind("app-", 0) != 0) {
    return {};
  }
  unit.erase(0, 4);
  if (unit.size() > 6 && unit.ends_with(".scope")) {
    unit.erase(unit.size() - 6);
    const auto dash = unit.rfind('-');
    if (dash == std::string::npos) {
      return {};
    }
    unit.erase(dash);
  } else if (unit.size() > 8 && unit.ends_with(".service")) {
    unit.erase(unit.size() - 8);
    if (const auto at = unit.find('@'); at != std::string::npos) {
      unit.erase(at);
    }
  } else {
    return {};
  }
  auto unescape = [](const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
      if (text.compare(at, 4, "\\x2d") == 0) {
        plain += '-';
        at += 3;
      } else {
        plain += text[at];
      }
    }
    return plain;
  };
  std::vector<std::string> candidates;
  if (const auto dash = unit.find('-'); dash != std::string::npos) {
    candidates.push_back(unescape(unit.substr(dash + 1)));  // after the launcher
  }
  candidates.push_back(unescape(unit));
  return candidates;
}

}  // namespace

std::optional<Stat> parseStat(std::string_view text) {
  // The name may hold anything, parentheses and spaces included: it ends at the last ')'.
  const auto close = text.rfind(')');
  const auto open = text.find('(');
  if (close == std::string_view::npos || open == std::string_view::npos || close < open) {
    return std::nullopt;
  }
  // After the name: state, parent, ... start time is the 20th field.
  std::istringstream fields{std::string(text.substr(close + 1))};
  std::string state;
  long long parent = 0;
  fields >> state >> parent;
  std::string skipped;
  for (int i = 0; i < 17; ++i) {
    fields >> skipped;
  }
  unsigned long long startTime = 0;
  fields >> startTime;
  if (!fields) {
    return std::nullopt;
  }
  return Stat{std::string(text.substr(open + 1, close - open - 1)), static_cast<pid_t>(parent),
              startTime};
}

std::optional<std::string> launchedDesktopID(std::string_view environment, pid_t pid) {
  constexpr std::string_view kDesktopFile = "GIO_LAUNCHED_DESKTOP_FILE=";
  constexpr std::string_view kLaunchedPID = "GIO_LAUNCHED_DESKTOP_FILE_PID=";
  std::string_view desktopFile;
  std::string_view launchedPID;
  std::size_t start = 0;
  while (start < environment.size()) {
    auto end = environment.find('\0', start);
    if (end == std::string_view::npos) {
      end = environment.size();
    }
    const auto variable = environment.substr(start, end - start);
    if (variable.starts_with(kDesktopFile)) {
      desktopFile = variable.substr(kDesktopFile.size());
    } else if (variable.starts_with(kLaunchedPID)) {
      launchedPID = variable.substr(kLaunchedPID.size());
    }
    start = end + 1;
  }
  if (desktopFile.empty() || launchedPID != std::to_string(pid)) {
    return std::nullopt;
  }
  return std::filesystem::path(desktopFile).stem().string();
}

std::optional<std::string> flatpakAppID(std::string_view info) {
  constexpr std::string_view kName = "\nname=";
  const auto at = info.find(kName);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  const auto begin = at + kName.size();
  const auto end = info.find('\n', begin);
  return std::string(info.substr(begin, end == std::string_view::npos ? end : end - begin));
}

std::vector<CgroupCandidate> cgroupCandidates(std::string_view cgroup) {
  std::vector<CgroupCandidate> candidates;
  std::istringstream lines{std::string(cgroup)};
  std::string line;
  while (std::getline(lines, line)) {
    const std::string unit = line.substr(line.rfind('/') + 1);
    if (unit.rfind("snap.", 0) == 0) {
      // snap.<snap>.<app>-<random>.scope names the entry <snap>_<app>.
      const auto second = unit.find('.', 5);
      const auto dash = unit.rfind('-');
      if (second != std::string::npos && dash != std::string::npos && dash > second) {
        candidates.push_back(
            {CgroupCandidate::Kind::desktopID,
             unit.substr(5, second - 5) + "_" + unit.substr(second + 1, dash - second - 1)});
      }
    }
    for (auto& id : appScopeCandidates(unit)) {
      candidates.push_back({CgroupCandidate::Kind::appID, std::move(id)});
    }
  }
  return candidates;
}

}  // namespace quellix::ProcFiles
