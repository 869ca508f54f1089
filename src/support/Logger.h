#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace quellix {

enum class LogLevel { info, error };

struct LogEntry {
  LogLevel level;
  std::string subsystem;
  std::string category;
  std::string message;
};

// Where log lines go. Implementations must accept lines from any thread.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogEntry& entry) = 0;
};

// Writes "[category] message" lines to standard error.
class StderrLogSink final : public LogSink {
 public:
  void write(const LogEntry& entry) override;
};

// Keeps every line, for tests.
class CapturingLogSink final : public LogSink {
 public:
  void write(const LogEntry& entry) override;
  std::vector<LogEntry> entries() const;
  std::vector<std::string> messages(std::string_view category = {}) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<LogEntry> entries_;
};

// One logger per type, named by its category, writing to the sink its owner was given; the
// subsystem is the program's identifier.
class Logger {
 public:
  // `sink` is never null.
  Logger(std::shared_ptr<LogSink> sink, std::string category);

  void info(std::string_view message) const;
  void error(std::string_view message) const;

  const std::string& category() const { return category_; }
  const std::shared_ptr<LogSink>& sink() const { return sink_; }

 private:
  void write(LogLevel level, std::string_view message) const;

  std::shared_ptr<LogSink> sink_;
  std::string category_;
};

// Renders a double as printf's "%f" does, as the log formats expect.
std::string formatFixed(double value);

}  // namespace quellix
