#include "desktop/mpris/Accessibility.h"

#include <utility>

#include "desktop/mpris/EventPoster.h"
#include "support/Logger.h"

namespace quellix {
namespace {

// No permission guards posting here: the process may post whenever its poster reaches the
// players, and there is nobody to ask when it does not.
class DesktopAccessibilityTrust final : public AccessibilityTrust {
 public:
  bool isTrusted() override { return !currentEventPoster()->unreachableReason(); }

  void prompt() override {
    if (const auto reason = currentEventPoster()->unreachableReason()) {
      logger_.error("The media keys cannot reach any player: " + *reason);
    }
  }

 private:
  Logger logger_{"MediaKeys"};
};

std::shared_ptr<AccessibilityTrust>& trustSlot() {
  static std::shared_ptr<AccessibilityTrust> trust;
  return trust;
}

AccessibilityTrust& currentTrust() {
  auto& trust = trustSlot();
  if (!trust) {
    trust = std::make_shared<DesktopAccessibilityTrust>();
  }
  return *trust;
}

}  // namespace

std::shared_ptr<AccessibilityTrust> installAccessibilityTrust(
    std::shared_ptr<AccessibilityTrust> trust) {
  return std::exchange(trustSlot(), std::move(trust));
}

bool AXIsProcessTrusted() {
  return currentTrust().isTrusted();
}

bool AXIsProcessTrustedWithOptions(const AXTrustOptions& options) {
  const bool trusted = currentTrust().isTrusted();
  if (options.prompt && !trusted) {
    currentTrust().prompt();
  }
  return trusted;
}

}  // namespace quellix
