#include "audio/CoreAudioSupport.h"

namespace quellix {
namespace {

struct ListErrorTexts {
  std::string size;
  std::string data;
};

std::vector<AudioObjectID> readObjectList(AudioHardware& hardware,
                                          AudioObjectPropertySelector selector,
                                          const ListErrorTexts& texts) {
  const auto address = globalAddress(selector);
  UInt32 size = 0;
  OSStatus status = hardware.AudioObjectGetPropertyDataSize(kAudioObjectSystemObject, &address, 0,
                                                            nullptr, &size);
  if (status != kAudioHardwareNoError) {
    throw TextError(texts.size + statusString(status));
  }
  // The list keeps the length the size query announced, whatever the data read reports.
  std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID), 0);
  UInt32 dataSize = static_cast<UInt32>(ids.size() * sizeof(AudioObjectID));
  status = hardware.AudioObjectGetPropertyData(kAudioObjectSystemObject, &address, 0, nullptr,
                                               &dataSize, ids.data());
  if (status != kAudioHardwareNoError) {
    throw TextError(texts.data + statusString(status));
  }
  return ids;
}

}  // namespace

std::string describe(const AudioObjectPropertyAddress& address) {
  std::string text = fourCharString(address.mSelector);
  text += '/';
  text += fourCharString(address.mScope);
  text += '/';
  text += address.mElement == kAudioObjectPropertyElementMain ? std::string("main")
                                                              : fourCharString(address.mElement);
  return text;
}

namespace detail {

void readPropertyBytes(AudioHardware& hardware, AudioObjectID object,
                       const AudioObjectPropertyAddress& address, UInt32 qualifierSize,
                       const void* qualifierData, void* storage, UInt32 capacity) {
  UInt32 size = 0;
  OSStatus status = hardware.AudioObjectGetPropertyDataSize(object, &address, qualifierSize,
                                                            qualifierData, &size);
  if (status != kAudioHardwareNoError) {
    throw TextError("Error reading data size for " + describe(address) + ": " +
                    statusString(status));
  }
  if (size > capacity) {
    throw TextError("Error reading data for " + describe(address) + ": size " +
                    std::to_string(size) + " exceeds the " + std::to_string(capacity) +
                    " bytes of the value type");
  }
  status = hardware.AudioObjectGetPropertyData(object, &address, qualifierSize, qualifierData,
                                               &size, storage);
  if (status != kAudioHardwareNoError) {
    throw TextError("Error reading data for " + describe(address) + ": " + statusString(status));
  }
}

}  // namespace detail

template <>
CFString read<CFString>(AudioHardware& hardware, AudioObjectID object,
                        const AudioObjectPropertyAddress& address, CFString defaultValue,
                        UInt32 qualifierSize, const void* qualifierData) {
  CFStringRef storage = defaultValue.get();
  detail::readPropertyBytes(hardware, object, address, qualifierSize, qualifierData, &storage,
                            static_cast<UInt32>(sizeof storage));
  if (storage == defaultValue.get()) {
    return defaultValue;
  }
  return CFString::adopt(storage);
}

template <>
std::optional<Float64> read<std::optional<Float64>>(AudioHardware& hardware, AudioObjectID object,
                                                    const AudioObjectPropertyAddress& address,
                                                    std::optional<Float64> defaultValue,
                                                    UInt32 qualifierSize,
                                                    const void* qualifierData) {
  Float64 payload = defaultValue.value_or(0.0);
  detail::readPropertyBytes(hardware, object, address, qualifierSize, qualifierData, &payload,
                            static_cast<UInt32>(sizeof payload));
  return defaultValue.has_value() ? std::optional<Float64>(payload) : std::nullopt;
}

void writeBytes(AudioHardware& hardware, AudioObjectID object,
                const AudioObjectPropertyAddress& address, const void* data, UInt32 size) {
  const OSStatus status =
      hardware.AudioObjectSetPropertyData(object, &address, 0, nullptr, size, data);
  if (status != kAudioHardwareNoError) {
    throw TextError("Error writing data for " + describe(address) + ": " + statusString(status));
  }
}

std::vector<AudioObjectID> readProcessList(AudioHardware& hardware) {
  const std::string description = describe(globalAddress(kAudioHardwarePropertyProcessObjectList));
  return readObjectList(hardware, kAudioHardwarePropertyProcessObjectList,
                        {"Error reading data size for " + description + ": ",
                         "Error reading array for " + description + ": "});
}

std::vector<AudioObjectID> readDeviceList(AudioHardware& hardware) {
  return readObjectList(hardware, kAudioHardwarePropertyDevices,
                        {"Error reading device list size: ", "Error reading device list: "});
}

namespace {

std::optional<std::string> readProcessText(AudioHardware& hardware, AudioObjectID process,
                                           AudioObjectPropertySelector selector) {
  try {
    const CFString text = read(hardware, process, globalAddress(selector), CFString(""));
    if (text.view().empty()) {
      return std::nullopt;
    }
    return text.str();
  } catch (const TextError&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> readProcessBundleID(AudioHardware& hardware, AudioObjectID process) {
  return readProcessText(hardware, process, kAudioProcessPropertyBundleID);
}

std::optional<std::string> readProcessApplicationName(AudioHardware& hardware,
                                                      AudioObjectID process) {
  return readProcessText(hardware, process, kAudioProcessPropertyApplicationName);
}

void writeText(AudioHardware& hardware, AudioObjectID object,
               const AudioObjectPropertyAddress& address, std::string_view text) {
  const CFString string(text);
  const CFStringRef ref = string.get();
  writeBytes(hardware, object, address, &ref, static_cast<UInt32>(sizeof ref));
}

}  // namespace quellix
