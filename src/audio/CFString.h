#pragma once

#include <string>
#include <string_view>
#include <utility>

// The text type of audio properties: an immutable, reference-counted string. A property read
// hands the caller its own reference (+1), which CFString adopts.
struct OpaqueCFString;
using CFStringRef = const OpaqueCFString*;

CFStringRef CFStringCreate(std::string_view text);  // +1
CFStringRef CFRetain(CFStringRef string);
void CFRelease(CFStringRef string);
std::string_view CFStringView(CFStringRef string);  // empty for null

// Owns one reference.
class CFString {
 public:
  CFString() = default;
  explicit CFString(std::string_view text) : ref_(CFStringCreate(text)) {}
  static CFString adopt(CFStringRef ref) { return CFString(ref, 0); }
  static CFString retain(CFStringRef ref) { return CFString(CFRetain(ref), 0); }

  CFString(const CFString& other) : ref_(CFRetain(other.ref_)) {}
  CFString(CFString&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
  CFString& operator=(CFString other) noexcept {
    std::swap(ref_, other.ref_);
    return *this;
  }
  ~CFString() { CFRelease(ref_); }

  CFStringRef get() const { return ref_; }
  std::string_view view() const { return CFStringView(ref_); }
  std::string str() const { return std::string(view()); }

 private:
  CFString(CFStringRef ref, int) : ref_(ref) {}
  CFStringRef ref_ = nullptr;
};
