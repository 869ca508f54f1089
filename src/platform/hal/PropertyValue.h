#pragma once

#include <cstring>
#include <vector>

#include "platform/hal/AudioHardware.h"

namespace quellix {

// A property's value as the bytes a read delivers. A text is a CFStringRef handed to the
// reader with its own reference; a value that is never delivered must release it.
class PropertyValue {
 public:
  template <typename T>
  static PropertyValue of(const T& value) {
    PropertyValue property;
    property.bytes_.resize(sizeof(T));
    std::memcpy(property.bytes_.data(), &value, sizeof(T));
    return property;
  }
  static PropertyValue list(const std::vector<AudioObjectID>& ids);
  static PropertyValue text(std::string_view text);

  PropertyValue() = default;
  PropertyValue(PropertyValue&& other) noexcept;
  PropertyValue& operator=(PropertyValue&& other) noexcept;
  PropertyValue(const PropertyValue&) = delete;
  PropertyValue& operator=(const PropertyValue&) = delete;
  ~PropertyValue();

  UInt32 size() const { return static_cast<UInt32>(bytes_.size()); }

  // Copies the value out as a data read does: a list as many whole elements as fit, anything
  // else only into room for all of it.
  OSStatus deliver(UInt32& ioSize, void* outData);

 private:
  std::vector<unsigned char> bytes_;
  bool isList_ = false;
  CFStringRef text_ = nullptr;  // owned until delivered
};

}  // namespace quellix
