#include "engine/muting/ProcessMuteTap.h"

#include "audio/CoreAudioSupport.h"
#include "engine/muting/TapRenderer.h"
#include "support/BuildInfo.h"
#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kObjectNamePrefix = "Quellix-";
constexpr const char* kLogCategory = "ProcessMuteTap";

std::string failure(const char* call, OSStatus status) {
  return std::string(call) + " failed: " + statusString(status);
}

CFDictionary aggregateDescription(const std::string& name, const std::string& uid,
                                  const std::string& outputUID, const std::string& tapUUID) {
  return CFDictionary{
      {kAudioAggregateDeviceNameKey, name},
      {kAudioAggregateDeviceUIDKey, uid},
      {kAudioAggregateDeviceMainSubDeviceKey, outputUID},
      {kAudioAggregateDeviceIsPrivateKey, true},
      {kAudioAggregateDeviceIsStackedKey, false},
      {kAudioAggregateDeviceTapAutoStartKey, true},
      {kAudioAggregateDeviceSubDeviceListKey,
       CFDictionary::array({CFDictionary{{kAudioSubDeviceUIDKey, outputUID}}})},
      {kAudioAggregateDeviceTapListKey,
       CFDictionary::array({CFDictionary{{kAudioSubTapDriftCompensationKey, true},
                                         {kAudioSubTapUIDKey, tapUUID}}})},
  };
}

}  // namespace

const std::string ProcessMuteTap::kAggregateUIDPrefix =
    std::string(build::kBundleIdentifier) + ".agg.";

ProcessMuteTap::ProcessMuteTap(AudioHardware& hardware, std::string label,
                               std::vector<AudioObjectID> processObjectIDs, float gain,
                               std::shared_ptr<LogSink> logs, std::string outputUID)
    : hardware_(hardware),
      label_(std::move(label)),
      outputUID_(std::move(outputUID)),
      renderer_(TapRenderer::create(gain)),
      logger_(std::move(logs), kLogCategory) {
  const std::size_t processCount = processObjectIDs.size();
  auto description = CATapDescription::stereoMixdownOfProcesses(std::move(processObjectIDs));
  description.setUUID(Uuid::random());
  description.setName(kObjectNamePrefix + label_);
  description.setPrivate(true);
  description.setMuteBehavior(CATapMuted);

  AudioObjectID tap = kAudioObjectUnknown;
  OSStatus status = hardware_.AudioHardwareCreateProcessTap(&description, &tap);
  if (status != kAudioHardwareNoError) {
    throw TextError("AudioHardwareCreateProcessTap failed for " + label_ + ": " +
                    statusString(status) + " (" +
                    fourCharString(static_cast<std::uint32_t>(status)) + ")");
  }
  tapID_ = tap;

  try {
    std::string playbackUID = outputUID_;
    if (playbackUID.empty()) {
      const auto outputDevice =
          read<UInt32>(hardware_, kAudioObjectSystemObject,
                       globalAddress(kAudioHardwarePropertyDefaultOutputDevice), 0);
      playbackUID =
          read(hardware_, outputDevice, globalAddress(kAudioDevicePropertyDeviceUID), CFString())
              .str();
    }
    const std::string tapUUID = description.UUID().uuidString();

    AudioObjectID aggregate = kAudioObjectUnknown;
    status = hardware_.AudioHardwareCreateAggregateDevice(
        aggregateDescription(kObjectNamePrefix + label_, kAggregateUIDPrefix + tapUUID, playbackUID,
                             tapUUID),
        &aggregate);
    if (status != kAudioHardwareNoError) {
      throw TextError(failure("AudioHardwareCreateAggregateDevice", status));
    }
    aggregateID_ = aggregate;

    AudioDeviceIOProcID ioProc = nullptr;
    status = hardware_.AudioDeviceCreateIOProcIDWithBlock(&ioProc, aggregateID_, nullptr,
                                                          renderer_->makeIOBlock());
    if (status != kAudioHardwareNoError) {
      throw TextError(failure("AudioDeviceCreateIOProcIDWithBlock", status));
    }
    ioProcID_ = ioProc;

    status = hardware_.AudioDeviceStart(aggregateID_, ioProc);
    if (status != kAudioHardwareNoError) {
      throw TextError(failure("AudioDeviceStart", status));
    }
  } catch (...) {
    teardown();
    throw;
  }

  logger_.info("Created tap #" + std::to_string(tapID_) + " + aggregate #" +
               std::to_string(aggregateID_) + " for " + label_ + " (gain " +
               formatFixed(static_cast<double>(gain)) + ", " + std::to_string(processCount) +
               " process object(s))");
  logFormat();
}

ProcessMuteTap::~ProcessMuteTap() = default;

void ProcessMuteTap::setGain(float gain) {
  renderer_->setGain(gain);
}

float ProcessMuteTap::gain() const {
  return renderer_->gain();
}

void ProcessMuteTap::logFormat() const {
  // Best effort: a tap that runs is a success even when its format cannot be read.
  try {
    const auto format = read(hardware_, tapID_, globalAddress(kAudioTapPropertyFormat),
                             AudioStreamBasicDescription{});
    const auto outputDevice =
        read<UInt32>(hardware_, kAudioObjectSystemObject,
                     globalAddress(kAudioHardwarePropertyDefaultOutputDevice), 0);
    const auto outputRate =
        read(hardware_, outputDevice, globalAddress(kAudioDevicePropertyNominalSampleRate),
             std::optional<Float64>(0.0));
    if (outputRate) {
      logger_.info("Tap-Format: " + formatFixed(format.mSampleRate) + " Hz / " +
                   std::to_string(format.mChannelsPerFrame) +
                   " ch — Output-Gerät: " + formatFixed(*outputRate) + " Hz");
    }
  } catch (const TextError&) {
  }
}

void ProcessMuteTap::invalidate() {
  if (tapID_ == kAudioObjectUnknown && aggregateID_ == kAudioObjectUnknown) {
    return;
  }
  teardown();
  logger_.info("Destroyed tap for " + label_);
}

void ProcessMuteTap::teardown() {
  // A failing call never stops the next one, and identifiers are cleared regardless.
  if (aggregateID_ != kAudioObjectUnknown) {
    if (ioProcID_) {
      OSStatus status = hardware_.AudioDeviceStop(aggregateID_, *ioProcID_);
      if (status != kAudioHardwareNoError) {
        logger_.error("AudioDeviceStop: " + statusString(status));
      }
      status = hardware_.AudioDeviceDestroyIOProcID(aggregateID_, *ioProcID_);
      if (status != kAudioHardwareNoError) {
        logger_.error("AudioDeviceDestroyIOProcID: " + statusString(status));
      }
      ioProcID_.reset();
    }
    const OSStatus status = hardware_.AudioHardwareDestroyAggregateDevice(aggregateID_);
    if (status != kAudioHardwareNoError) {
      logger_.error("AudioHardwareDestroyAggregateDevice: " + statusString(status));
    }
    aggregateID_ = kAudioObjectUnknown;
  }
  if (tapID_ != kAudioObjectUnknown) {
    const OSStatus status = hardware_.AudioHardwareDestroyProcessTap(tapID_);
    if (status != kAudioHardwareNoError) {
      logger_.error("AudioHardwareDestroyProcessTap: " + statusString(status));
    }
    tapID_ = kAudioObjectUnknown;
  }
}

void ProcessMuteTap::sweepOrphans(AudioHardware& hardware, std::shared_ptr<LogSink> logs) {
  std::vector<AudioObjectID> devices;
  try {
    devices = readDeviceList(hardware);
  } catch (const TextError&) {
    return;
  }
  const Logger logger(std::move(logs), kLogCategory);
  for (const AudioObjectID device : devices) {
    std::string uid;
    try {
      uid = read(hardware, device, globalAddress(kAudioDevicePropertyDeviceUID), CFString()).str();
    } catch (const TextError&) {
      continue;
    }
    if (uid.rfind(kAggregateUIDPrefix, 0) == 0) {
      const OSStatus status = hardware.AudioHardwareDestroyAggregateDevice(device);
      logger.error("Orphan-Aggregate " + uid + " entfernt (Status " + statusString(status) + ")");
    }
  }
}

}  // namespace quellix
