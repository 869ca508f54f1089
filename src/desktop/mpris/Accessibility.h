#pragma once

#include <memory>

namespace quellix {

// What decides whether this process may post key events, and asks the user when it may not.
class AccessibilityTrust {
 public:
  virtual ~AccessibilityTrust() = default;
  virtual bool isTrusted() = 0;
  virtual void prompt() = 0;
};

// The trust every caller asks; nullptr puts the desktop's own back. Returns the previous one.
std::shared_ptr<AccessibilityTrust> installAccessibilityTrust(
    std::shared_ptr<AccessibilityTrust> trust);

struct AXTrustOptions {
  bool prompt = false;  // AXTrustedCheckOptionPrompt
};

bool AXIsProcessTrusted();
bool AXIsProcessTrustedWithOptions(const AXTrustOptions& options);

}  // namespace quellix
