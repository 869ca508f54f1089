#include "platform/hal/PropertyValue.h"

#include <utility>

namespace quellix {

PropertyValue PropertyValue::list(const std::vector<AudioObjectID>& ids) {
  PropertyValue property;
  property.bytes_.resize(ids.size() * sizeof(AudioObjectID));
  if (!ids.empty()) {
    std::memcpy(property.bytes_.data(), ids.data(), property.bytes_.size());
  }
  property.isList_ = true;
  return property;
}

PropertyValue PropertyValue::text(std::string_view text) {
  PropertyValue property = of(CFStringRef{nullptr});
  property.text_ = CFStringCreate(text);
  std::memcpy(property.bytes_.data(), &property.text_, sizeof property.text_);
  return property;
}

PropertyValue::PropertyValue(PropertyValue&& other) noexcept
    : bytes_(std::move(other.bytes_)),
      isList_(other.isList_),
      text_(std::exchange(other.text_, nullptr)) {}

PropertyValue& PropertyValue::operator=(PropertyValue&& other) noexcept {
  if (this != &other) {
    CFRelease(text_);
    bytes_ = std::move(other.bytes_);
    isList_ = other.isList_;
    text_ = std::exchange(other.text_, nullptr);
  }
  return *this;
}

PropertyValue::~PropertyValue() {
  CFRelease(text_);
}

OSStatus PropertyValue::deliver(UInt32& ioSize, void* outData) {
  if (isList_) {
    const UInt32 fitting = std::min(ioSize, size()) / sizeof(AudioObjectID) * sizeof(AudioObjectID);
    if (fitting > 0) {
      std::memcpy(outData, bytes_.data(), fitting);
    }
    ioSize = fitting;
    return kAudioHardwareNoError;
  }
  if (ioSize < size()) {
    return kAudioHardwareBadPropertySizeError;
  }
  std::memcpy(outData, bytes_.data(), size());
  ioSize = size();
  text_ = nullptr;  // the reader owns the reference now
  return kAudioHardwareNoError;
}

}  // namespace quellix
