#include "engine/muting/MuteController.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "audio/CoreAudioSupport.h"
#include "support/Parsing.h"
#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kMutedBundleIDsKey = "mutedBundleIDs";
constexpr const char* kAppVolumesKey = "appVolumes";
constexpr const char* kAppOutputDevicesKey = "appOutputDevices";
constexpr const char* kMuteCountKey = "stats.muteCount";
constexpr const char* kMutedSecondsKey = "stats.mutedSeconds";
constexpr const char* kRunScopedKeyPrefix = "pid:";

bool isRunScoped(const std::string& key) {
  return key.rfind(kRunScopedKeyPrefix, 0) == 0;
}

float clampedGain(float gain) {
  return std::clamp(gain, 0.0f, 1.0f);
}

double secondsBetween(WallClock::TimePoint from, WallClock::TimePoint to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

std::shared_ptr<MuteController> MuteController::create(MainQueue& queue, AudioHardware& hardware,
                                                       DefaultsStore& defaults,
                                                       const WallClock& clock,
                                                       std::shared_ptr<LogSink> logs) {
  std::shared_ptr<MuteController> controller(
      new MuteController(hardware, defaults, clock, std::move(logs)));
  controller->load();
  ProcessMuteTap::sweepOrphans(hardware, controller->logger_.sink());
  auto listener = makeListenerBlock([weak = std::weak_ptr<MuteController>(controller), &queue](
                                        UInt32, const AudioObjectPropertyAddress*) {
    queue.post([weak] {
      if (auto self = weak.lock()) {
        self->rebuildAllTaps();
      }
    });
  });
  if (hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                   &controller->defaultOutputAddress_, &queue,
                                                   listener) == kAudioHardwareNoError) {
    controller->deviceListener_ = std::move(listener);
  }
  auto listListener = makeListenerBlock([weak = std::weak_ptr<MuteController>(controller), &queue](
                                            UInt32, const AudioObjectPropertyAddress*) {
    queue.post([weak] {
      if (auto self = weak.lock()) {
        self->refreshOutputDevices();
      }
    });
  });
  if (hardware.AudioObjectAddPropertyListenerBlock(kAudioObjectSystemObject,
                                                   &controller->deviceListAddress_, &queue,
                                                   listListener) == kAudioHardwareNoError) {
    controller->deviceListListener_ = std::move(listListener);
  }
  controller->refreshOutputDevices();
  return controller;
}

MuteController::MuteController(AudioHardware& hardware, DefaultsStore& defaults,
                               const WallClock& clock, std::shared_ptr<LogSink> logs)
    : hardware_(hardware),
      defaults_(defaults),
      clock_(clock),
      logger_(std::move(logs), "MuteController") {}

MuteController::~MuteController() {
  // A quit is no crash: the streams go back now rather than being left for the guard, which
  // reports what it has to clean up as an error.
  for (auto& [key, tap] : taps_) {
    tap->invalidate();
  }
}

void MuteController::load() {
  const auto muted = defaults_.stringArray(kMutedBundleIDsKey);
  mutedKeys_.set(muted ? std::set<std::string>(muted->begin(), muted->end())
                       : std::set<std::string>());

  // Entries that are no volume are dropped one by one; the others load.
  std::map<std::string, float> volumes;
  if (const auto stored = defaults_.dictionary(kAppVolumesKey)) {
    for (const auto& [key, value] : *stored) {
      std::optional<double> volume;
      if (value.is_number()) {
        volume = value.get<double>();
      } else if (value.is_string()) {
        // A text counts only when it is a number as a whole.
        volume = parseStrictDouble(value.get<std::string>());
      }
      if (volume && *volume >= 0.0 && *volume <= 1.0) {
        volumes[key] = static_cast<float>(*volume);
      } else {
        defaults_.reportBadValue(kAppVolumesKey, value, "a volume from 0 to 1", key);
      }
    }
  }
  volumes_.set(std::move(volumes));

  // A choice that is no UID is reported and kept as it was; a UID of a device that is away
  // is a choice like any other.
  std::map<std::string, std::string> choices;
  if (const auto stored = defaults_.dictionary(kAppOutputDevicesKey)) {
    for (const auto& [key, value] : *stored) {
      if (value.is_string() && !value.get<std::string>().empty()) {
        choices[key] = value.get<std::string>();
      } else {
        defaults_.reportBadValue(kAppOutputDevicesKey, value, "the UID of an output device", key);
        unreadableOutputChoices_[key] = value;
      }
    }
  }
  outputChoices_.set(std::move(choices));

  std::int64_t muteCount = defaults_.integer(kMuteCountKey);
  if (muteCount < 0) {
    defaults_.reportBadValue(kMuteCountKey, *defaults_.object(kMuteCountKey),
                             "a count of 0 or more");
    muteCount = 0;
  }
  statsMuteCount_.set(muteCount);
  double mutedSeconds = defaults_.doubleValue(kMutedSecondsKey);
  if (!(mutedSeconds >= 0.0)) {
    defaults_.reportBadValue(kMutedSecondsKey, *defaults_.object(kMutedSecondsKey),
                             "a number of seconds of 0 or more");
    mutedSeconds = 0.0;
  }
  statsMutedSeconds_.set(mutedSeconds);
}

void MuteController::persist() {
  defaults_.set(kMuteCountKey, statsMuteCount_.get());
  std::vector<std::string> muted;
  for (const auto& key : mutedKeys_.get()) {
    if (!isRunScoped(key)) {
      muted.push_back(key);  // a std::set is already in ascending byte order
    }
  }
  defaults_.set(kMutedBundleIDsKey, muted);
  nlohmann::json volumes = nlohmann::json::object();
  for (const auto& [key, volume] : volumes_.get()) {
    if (!isRunScoped(key)) {
      volumes[key] = static_cast<double>(volume);
    }
  }
  defaults_.set(kAppVolumesKey, volumes);
}

void MuteController::accumulateMuteTime(const std::string& key) {
  auto starts = muteStartDates_.get();
  const auto found = starts.find(key);
  if (found == starts.end()) {
    return;
  }
  const double seconds = secondsBetween(found->second, clock_.now());
  starts.erase(found);
  muteStartDates_.set(std::move(starts));
  statsMutedSeconds_.set(statsMutedSeconds_.get() + seconds);
  defaults_.set(kMutedSecondsKey, statsMutedSeconds_.get());
}

double MuteController::statsTotalMutedSeconds() const {
  double total = statsMutedSeconds_.get();
  for (const auto& [key, start] : muteStartDates_.get()) {
    total += secondsBetween(start, clock_.now());
  }
  return total;
}

int MuteController::activeMuteCount() const {
  const auto& muted = mutedKeys_.get();
  int count = 0;
  for (const auto& key : tappedKeys_.get()) {
    count += muted.count(key) > 0 ? 1 : 0;
  }
  return count;
}

float MuteController::tapGain(const std::string& key) const {
  const auto found = taps_.find(key);
  return found == taps_.end() ? std::nanf("") : found->second->gain();
}

bool MuteController::needsTap(const std::string& key) const {
  if (mutedKeys_.get().count(key) > 0) {
    return true;
  }
  const auto& volumes = volumes_.get();
  const auto found = volumes.find(key);
  return found != volumes.end() && found->second < kFullVolumeThreshold;
}

float MuteController::effectiveGain(const std::string& key) const {
  if (mutedKeys_.get().count(key) > 0) {
    return 0.0f;
  }
  const auto& volumes = volumes_.get();
  const auto found = volumes.find(key);
  return found != volumes.end() ? found->second : 1.0f;
}

void MuteController::forgetTap(const std::string& key) {
  taps_.erase(key);
  tappedObjectIDs_.erase(key);
  tappedKeys_.modify([&](auto& keys) { keys.erase(key); });
}

void MuteController::reconcile(const std::vector<AudioApp>& apps) {
  lastApps_ = apps;
  std::map<std::string, const AudioApp*> byKey;
  for (const auto& app : lastApps_) {
    byKey.try_emplace(app.key(), &app);  // the first entry of a key is the one indexed
  }

  std::vector<std::string> tappedKeys;
  for (const auto& entry : taps_) {
    tappedKeys.push_back(entry.first);
  }
  for (const auto& key : tappedKeys) {
    const auto app = byKey.find(key);
    const bool current = needsTap(key) && app != byKey.end() &&
                         tappedObjectIDs_[key] == app->second->processObjectIDs &&
                         taps_[key]->outputUID() == effectiveOutputUID(key);
    if (current) {
      continue;
    }
    taps_[key]->invalidate();
    forgetTap(key);
    accumulateMuteTime(key);
  }

  for (const auto& app : lastApps_) {
    const std::string key = app.key();
    if (!needsTap(key)) {
      continue;
    }
    if (const auto tap = taps_.find(key); tap != taps_.end()) {
      tap->second->setGain(clampedGain(effectiveGain(key)));
      continue;
    }
    std::unique_ptr<ProcessMuteTap> tap;
    try {
      tap = std::make_unique<ProcessMuteTap>(hardware_, app.name, app.processObjectIDs,
                                             effectiveGain(key), logger_.sink(),
                                             effectiveOutputUID(key));
    } catch (const std::exception& error) {
      logger_.error("Tap für " + app.name + " fehlgeschlagen: " + errorDescription(error));
      continue;
    }
    taps_.emplace(key, std::move(tap));
    tappedObjectIDs_[key] = app.processObjectIDs;
    tappedKeys_.modify([&](auto& keys) { keys.insert(key); });
    if (mutedKeys_.get().count(key) > 0 && muteStartDates_.get().count(key) == 0) {
      muteStartDates_.modify([&](auto& starts) { starts[key] = clock_.now(); });
    }
  }
  sendStreamsToOutputs(lastApps_);
}

void MuteController::toggle(const AudioApp& app) {
  const std::string key = app.key();
  if (mutedKeys_.get().count(key) > 0) {
    mutedKeys_.modify([&](auto& keys) { keys.erase(key); });
    accumulateMuteTime(key);
  } else {
    mutedKeys_.modify([&](auto& keys) { keys.insert(key); });
    if (statsMuteCount_.get() < std::numeric_limits<std::int64_t>::max()) {
      statsMuteCount_.set(statsMuteCount_.get() + 1);
    }
  }
  persist();
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::setVolume(float volume, const AudioApp& app) {
  const std::string key = app.key();
  const float clamped = std::isnan(volume) ? 1.0f : std::clamp(volume, 0.0f, 1.0f);
  volumes_.modify([&](auto& volumes) {
    if (clamped >= kFullVolumeThreshold) {
      volumes.erase(key);
    } else {
      volumes[key] = clamped;
    }
  });
  persist();
  if (const auto tap = taps_.find(key); tap != taps_.end()) {
    tap->second->setGain(clampedGain(effectiveGain(key)));
    if (!needsTap(key)) {
      reconcile(std::vector<AudioApp>(lastApps_));
    }
    return;
  }
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::muteAll() {
  hearOnly_.reset();
  hearOnlyKey_.set(std::nullopt);
  mutedKeys_.modify([&](auto& keys) {
    for (const auto& app : lastApps_) {
      keys.insert(app.key());
    }
  });
  persist();
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::unmuteAll() {
  hearOnly_.reset();
  hearOnlyKey_.set(std::nullopt);
  mutedKeys_.set({});
  std::vector<std::string> running;
  for (const auto& entry : muteStartDates_.get()) {
    running.push_back(entry.first);
  }
  for (const auto& key : running) {
    accumulateMuteTime(key);
  }
  persist();
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::rebuildAllTaps() {
  // Taps that play on a chosen device stay where they are.
  std::vector<std::string> following;
  for (const auto& [key, tap] : taps_) {
    if (tap->outputUID().empty()) {
      following.push_back(key);
    }
  }
  if (following.empty()) {
    // A tap that failed while there was no default output (its sink gone, the next one not
    // yet reported) is built now that there is one.
    reconcile(std::vector<AudioApp>(lastApps_));
    return;
  }
  logger_.info("Default-Output gewechselt — baue " + std::to_string(following.size()) +
               " Tap(s) neu auf");
  for (const auto& key : following) {
    taps_[key]->invalidate();
    forgetTap(key);
  }
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::refreshOutputDevices() {
  std::vector<AudioObjectID> ids;
  try {
    ids = readDeviceList(hardware_);
  } catch (const TextError& error) {
    logger_.error("Ausgabegeräte nicht lesbar: " + errorDescription(error));
    return;
  }
  std::vector<OutputDevice> devices;
  for (const AudioObjectID id : ids) {
    OutputDevice device{id, {}, {}};
    try {
      device.uid =
          read(hardware_, id, globalAddress(kAudioDevicePropertyDeviceUID), CFString()).str();
      device.name = read(hardware_, id, globalAddress(kAudioObjectPropertyName), CFString()).str();
    } catch (const TextError&) {
      // A device without a name is still one: its UID stands in.
    }
    if (device.uid.empty() || device.uid.rfind(ProcessMuteTap::kAggregateUIDPrefix, 0) == 0) {
      continue;  // gone meanwhile, or one of our taps' aggregate devices
    }
    if (device.name.empty()) {
      device.name = device.uid;
    }
    devices.push_back(std::move(device));
  }
  // A chosen device that comes or goes moves its taps.
  if (outputDevices_.set(std::move(devices))) {
    reconcile(std::vector<AudioApp>(lastApps_));
  }
}

std::string MuteController::effectiveOutputUID(const std::string& key) const {
  const auto& choices = outputChoices_.get();
  const auto choice = choices.find(key);
  if (choice == choices.end()) {
    return {};
  }
  const auto& devices = outputDevices_.get();
  const bool present = std::any_of(devices.begin(), devices.end(), [&](const auto& device) {
    return device.uid == choice->second;
  });
  return present ? choice->second : std::string();
}

void MuteController::sendStreamsToOutputs(const std::vector<AudioApp>& apps) {
  // Applications never sent anywhere are left to the sound server; one sent back to the default
  // output is told once.
  const auto& choices = outputChoices_.get();
  std::map<AudioObjectID, std::string> sent;
  for (const auto& app : apps) {
    const auto choice = choices.find(app.key());
    const std::string wanted = choice != choices.end() ? choice->second : std::string();
    for (const AudioObjectID object : app.processObjectIDs) {
      const auto before = sentOutputs_.find(object);
      const bool told = before != sentOutputs_.end() && before->second == wanted;
      if (told || (wanted.empty() && before == sentOutputs_.end())) {
        if (told && !wanted.empty()) {
          sent.emplace(object, wanted);
        }
        continue;
      }
      try {
        writeText(hardware_, object, globalAddress(kAudioProcessPropertyOutputDeviceUID), wanted);
        if (!wanted.empty()) {
          sent.emplace(object, wanted);
        }
      } catch (const TextError& error) {
        // Said once: the next choice tries again, not every reconciliation.
        logger_.error("Ausgabe für " + app.name + " nicht gesetzt: " + errorDescription(error));
        sent.emplace(object, wanted);
      }
    }
  }
  sentOutputs_ = std::move(sent);
}

void MuteController::persistOutputChoices() {
  nlohmann::json stored = unreadableOutputChoices_;
  for (const auto& [key, uid] : outputChoices_.get()) {
    if (!isRunScoped(key)) {
      stored[key] = uid;
    }
  }
  defaults_.set(kAppOutputDevicesKey, std::move(stored));
}

void MuteController::setOutputDevice(const std::string& deviceUID, const AudioApp& app) {
  const std::string key = app.key();
  outputChoices_.modify([&](auto& choices) {
    if (deviceUID.empty()) {
      choices.erase(key);
    } else {
      choices[key] = deviceUID;
    }
  });
  unreadableOutputChoices_.erase(key);
  persistOutputChoices();
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::hearOnly(const AudioApp& app) {
  const std::string key = app.key();
  const bool putBack = hearOnly_ && hearOnly_->key == key;
  auto muted = mutedKeys_.get();
  std::vector<std::string> unmuted;
  if (hearOnly_) {
    for (const auto& other : hearOnly_->mutedByIt) {
      if (muted.erase(other) > 0) {
        unmuted.push_back(other);
      }
    }
    if (hearOnly_->unmutedIt) {
      muted.insert(hearOnly_->key);
    }
    hearOnly_.reset();
  }
  if (!putBack) {
    HearOnly state{key, {}, false};
    for (const auto& other : lastApps_) {
      const std::string otherKey = other.key();
      if (otherKey != key && muted.insert(otherKey).second) {
        state.mutedByIt.insert(otherKey);
      }
    }
    if (muted.erase(key) > 0) {
      state.unmutedIt = true;
      unmuted.push_back(key);
    }
    hearOnly_ = std::move(state);
  }
  mutedKeys_.set(std::move(muted));
  for (const auto& other : unmuted) {
    if (mutedKeys_.get().count(other) == 0) {
      accumulateMuteTime(other);
    }
  }
  hearOnlyKey_.set(hearOnly_ ? std::optional<std::string>(key) : std::nullopt);
  persist();
  reconcile(std::vector<AudioApp>(lastApps_));
}

}  // namespace quellix
