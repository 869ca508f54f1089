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
  explicit DesktopAccessibilityTrust(std::shared_ptr<LogSink> logs)
      : logger_(std::move(logs), "MediaKeys") {}

  bool isTrusted() override { return !currentEventPoster()->unreachableReason(); }

  void prompt() override {
    if (const auto reason = currentEventPoster()->unreachableReason()) {
      logger_.error("The media keys cannot reach any player: " + *reason);
    }
  }

 private:
  Logger logger_;
};

std::shared_ptr<AccessibilityTrust>& trustSlot() {
  static std::shared_ptr<AccessibilityTrust> trust;
  return trust;
}

AccessibilityTrust& currentTrust() {
  auto& trust = trustSlot();
  if (!trust) {
    trust = makeDesktopAccessibilityTrust(std::make_shared<StderrLogSink>());
  }
  return *trust;
}

}  // namespace

std::shared_ptr<AccessibilityTrust> installAccessibilityTrust(
    std::shared_ptr<AccessibilityTrust> trust) {
  return std::exchange(trustSlot(), std::move(trust));
}

std::shared_ptr<AccessibilityTrust> makeDesktopAccessibilityTrust(std::shared_ptr<LogSink> logs) {
  return std::make_shared<DesktopAccessibilityTrust>(std::move(logs));
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
