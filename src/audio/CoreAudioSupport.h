#pragma once

#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "audio/AudioHardware.h"
#include "support/TextError.h"

namespace quellix {

// "selector/scope/element", the element as "main" when 0, else as four characters.
std::string describe(const AudioObjectPropertyAddress& address);

inline constexpr AudioObjectPropertyAddress globalAddress(AudioObjectPropertySelector selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

namespace detail {

// Size query, refusal of sizes beyond `capacity`, then the data read into `storage`.
// Throws the property-access error texts.
void readPropertyBytes(AudioHardware& hardware, AudioObjectID object,
                       const AudioObjectPropertyAddress& address, UInt32 qualifierSize,
                       const void* qualifierData, void* storage, UInt32 capacity);

}  // namespace detail

// Typed read of one property. The storage starts as the default value, so bytes the property
// does not deliver keep the default's bytes. Throws TextError.
template <typename T>
T read(AudioHardware& hardware, AudioObjectID object, const AudioObjectPropertyAddress& address,
       T defaultValue, UInt32 qualifierSize = 0, const void* qualifierData = nullptr) {
  static_assert(std::is_trivially_copyable_v<T>, "no typed read for this value type");
  T storage = defaultValue;
  detail::readPropertyBytes(hardware, object, address, qualifierSize, qualifierData, &storage,
                            static_cast<UInt32>(sizeof(T)));
  return storage;
}

// Text: the read hands over its own reference.
template <>
CFString read<CFString>(AudioHardware& hardware, AudioObjectID object,
                        const AudioObjectPropertyAddress& address, CFString defaultValue,
                        UInt32 qualifierSize, const void* qualifierData);

// An optional float: eight bytes of value and a presence mark the property never writes, so a
// read is present exactly when the default was.
template <>
std::optional<Float64> read<std::optional<Float64>>(AudioHardware& hardware, AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    std::optional<Float64> defaultValue,
                                                    UInt32 qualifierSize,
                                                    const void* qualifierData);

// Writes a fixed-size value. Throws TextError.
void writeBytes(AudioHardware& hardware, AudioObjectID object,
                const AudioObjectPropertyAddress& address, const void* data, UInt32 size);

template <typename T>
void write(AudioHardware& hardware, AudioObjectID object, const AudioObjectPropertyAddress& address,
           const T& value) {
  static_assert(std::is_trivially_copyable_v<T>, "only fixed-size values can be written");
  writeBytes(hardware, object, address, &value, static_cast<UInt32>(sizeof(T)));
}

// Writes a text property: the call borrows the string's reference. Throws TextError.
void writeText(AudioHardware& hardware, AudioObjectID object,
               const AudioObjectPropertyAddress& address, std::string_view text);

std::vector<AudioObjectID> readProcessList(AudioHardware& hardware);
std::vector<AudioObjectID> readDeviceList(AudioHardware& hardware);
// None for a process without a bundle identifier and for a failing read.
std::optional<std::string> readProcessBundleID(AudioHardware& hardware, AudioObjectID process);
// None for a process whose streams give no application name and for a failing read.
std::optional<std::string> readProcessApplicationName(AudioHardware& hardware,
                                                      AudioObjectID process);

}  // namespace quellix
