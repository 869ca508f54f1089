#pragma once

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "audio/AudioHardware.h"

namespace quellix {

// A property's value as a read delivers it. Fixed-size values live inline and a text becomes
// a CFStringRef (with the reader's own reference) only when delivered, so answering a read
// from a model allocates nothing but the text's handle.
class PropertyValue {
 public:
  template <typename T>
  static PropertyValue of(const T& value) {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= kInlineCapacity);
    PropertyValue property;
    property.size_ = sizeof(T);
    std::memcpy(property.inline_.data(), &value, sizeof(T));
    return property;
  }
  static PropertyValue list(std::vector<AudioObjectID> ids);
  static PropertyValue text(std::string_view text);

  UInt32 size() const { return size_; }

  // Copies the value out as a data read does: a list as many whole elements as fit, anything
  // else only into room for all of it.
  OSStatus deliver(UInt32& ioSize, void* outData) const;

 private:
  enum class Kind { scalar, list, text };
  static constexpr std::size_t kInlineCapacity = 48;

  Kind kind_ = Kind::scalar;
  UInt32 size_ = 0;
  std::array<unsigned char, kInlineCapacity> inline_{};
  std::vector<AudioObjectID> list_;
  std::string text_;
};

}  // namespace quellix
