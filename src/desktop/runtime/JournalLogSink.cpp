#include "desktop/runtime/JournalLogSink.h"

#include <sys/stat.h>
#include <syslog.h>

#include <systemd/sd-journal.h>

namespace quellix {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

}  // namespace

void JournalLogSink::write(const LogEntry& entry) {
  const int priority = entry.level == LogLevel::error ? LOG_ERR : LOG_INFO;
  const int status =
      sd_journal_send("MESSAGE=%s", entry.message.c_str(), "PRIORITY=%i", priority,
                      "SYSLOG_IDENTIFIER=quellix", "QUELLIX_SUBSYSTEM=%s", entry.subsystem.c_str(),
                      "QUELLIX_CATEGORY=%s", entry.category.c_str(), nullptr);
  if (status < 0) {
    StderrLogSink().write(entry);
  }
}

std::shared_ptr<LogSink> makeSystemLogSink() {
  struct stat info {};
  if (::stat(kJournalSocket, &info) == 0 && S_ISSOCK(info.st_mode)) {
    return std::make_shared<JournalLogSink>();
  }
  return std::make_shared<StderrLogSink>();
}

}  // namespace quellix
