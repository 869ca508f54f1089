#include "support/Logger.h"

#include <cstdio>
#include <utility>

#include "support/BuildInfo.h"

namespace quellix {

void StderrLogSink::write(const LogEntry& entry) {
  std::string line = "[" + entry.category + "] ";
  if (entry.level == LogLevel::error) {
    line += "error: ";
  }
  line += entry.message;
  line += '\n';
  std::fputs(line.c_str(), stderr);
}

void CapturingLogSink::write(const LogEntry& entry) {
  std::lock_guard lock(mutex_);
  entries_.push_back(entry);
}

std::vector<LogEntry> CapturingLogSink::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

std::vector<std::string> CapturingLogSink::messages(std::string_view category) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  for (const auto& entry : entries_) {
    if (category.empty() || entry.category == category) {
      result.push_back(entry.message);
    }
  }
  return result;
}

void CapturingLogSink::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

Logger::Logger(std::shared_ptr<LogSink> sink, std::string category)
    : sink_(std::move(sink)), category_(std::move(category)) {}

void Logger::info(std::string_view message) const {
  write(LogLevel::info, message);
}

void Logger::error(std::string_view message) const {
  write(LogLevel::error, message);
}

void Logger::write(LogLevel level, std::string_view message) const {
  sink_->write(LogEntry{level, build::kBundleIdentifier, category_, std::string(message)});
}

std::string formatFixed(double value) {
  char buffer[512];
  const int length = std::snprintf(buffer, sizeof buffer, "%f", value);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace quellix
