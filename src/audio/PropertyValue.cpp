#include "audio/PropertyValue.h"

#include <algorithm>

namespace quellix {

PropertyValue PropertyValue::list(std::vector<AudioObjectID> ids) {
  PropertyValue property;
  property.kind_ = Kind::list;
  property.size_ = static_cast<UInt32>(ids.size() * sizeof(AudioObjectID));
  property.list_ = std::move(ids);
  return property;
}

PropertyValue PropertyValue::text(std::string_view text) {
  PropertyValue property;
  property.kind_ = Kind::text;
  property.size_ = sizeof(CFStringRef);
  property.text_ = text;
  return property;
}

OSStatus PropertyValue::deliver(UInt32& ioSize, void* outData) const {
  switch (kind_) {
    case Kind::list: {
      const UInt32 fitting =
          std::min(ioSize, size_) / sizeof(AudioObjectID) * sizeof(AudioObjectID);
      if (fitting > 0) {
        std::memcpy(outData, list_.data(), fitting);
      }
      ioSize = fitting;
      return kAudioHardwareNoError;
    }
    case Kind::text: {
      if (ioSize < size_) {
        return kAudioHardwareBadPropertySizeError;
      }
      const CFStringRef handle = CFStringCreate(text_);  // the reader's reference
      std::memcpy(outData, &handle, sizeof handle);
      ioSize = size_;
      return kAudioHardwareNoError;
    }
    case Kind::scalar:
      if (ioSize < size_) {
        return kAudioHardwareBadPropertySizeError;
      }
      std::memcpy(outData, inline_.data(), size_);
      ioSize = size_;
      return kAudioHardwareNoError;
  }
  return kAudioHardwareUnspecifiedError;
}

}  // namespace quellix
