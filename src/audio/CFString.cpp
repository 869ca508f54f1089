#include "audio/CFString.h"

#include <atomic>

struct OpaqueCFString {
  mutable std::atomic<long> references{1};
  std::string text;
};

CFStringRef CFStringCreate(std::string_view text) {
  auto* string = new OpaqueCFString;
  string->text.assign(text);
  return string;
}

CFStringRef CFRetain(CFStringRef string) {
  if (string != nullptr) {
    string->references.fetch_add(1, std::memory_order_relaxed);
  }
  return string;
}

void CFRelease(CFStringRef string) {
  if (string != nullptr && string->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete string;
  }
}

std::string_view CFStringView(CFStringRef string) {
  return string == nullptr ? std::string_view() : std::string_view(string->text);
}
