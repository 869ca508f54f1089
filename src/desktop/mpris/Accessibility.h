#pragma once

#include <memory>

namespace quellix {

class LogSink;

// What decides whether this process may post key events, and asks the user when it may not.
class AccessibilityTrust {
 public:
  virtual ~AccessibilityTrust() = default;
  virtual bool isTrusted() = 0;
  virtual void prompt() = 0;
};

// The trust every caller asks; nullptr puts the desktop's own back, logging to standard error.
// Returns the previous one.
std::shared_ptr<AccessibilityTrust> installAccessibilityTrust(
    std::shared_ptr<AccessibilityTrust> trust);

// The desktop's own trust: whether the media players can be reached, logging why not to `logs`.
std::shared_ptr<AccessibilityTrust> makeDesktopAccessibilityTrust(std::shared_ptr<LogSink> logs);

struct AXTrustOptions {
  bool prompt = false;  // AXTrustedCheckOptionPrompt
};

bool AXIsProcessTrusted();
bool AXIsProcessTrustedWithOptions(const AXTrustOptions& options);

}  // namespace quellix
