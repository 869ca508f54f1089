#pragma once

#include <memory>

#include "support/Logger.h"

namespace quellix {

// Sends lines to the systemd journal with QUELLIX_SUBSYSTEM and QUELLIX_CATEGORY fields.
class JournalLogSink final : public LogSink {
 public:
  void write(const LogEntry& entry) override;
};

// The journal where one runs, standard error otherwise.
std::shared_ptr<LogSink> makeSystemLogSink();

}  // namespace quellix
