#include "engine/muting/MuteController.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "support/Parsing.h"
#include "support/TextError.h"

namespace quellix {
namespace {

constexpr const char* kMutedBundleIDsKey = "mutedBundleIDs";
constexpr const char* kAppVolumesKey = "appVolumes";
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
                         tappedObjectIDs_[key] == app->second->processObjectIDs;
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
                                             effectiveGain(key), logger_.sink());
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
  mutedKeys_.modify([&](auto& keys) {
    for (const auto& app : lastApps_) {
      keys.insert(app.key());
    }
  });
  persist();
  reconcile(std::vector<AudioApp>(lastApps_));
}

void MuteController::unmuteAll() {
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
  if (taps_.empty()) {
    // A tap that failed while there was no default output (its sink gone, the next one not
    // yet reported) is built now that there is one.
    reconcile(std::vector<AudioApp>(lastApps_));
    return;
  }
  logger_.info("Default-Output gewechselt — baue " + std::to_string(taps_.size()) +
               " Tap(s) neu auf");
  for (auto& [key, tap] : taps_) {
    tap->invalidate();
  }
  taps_.clear();
  tappedObjectIDs_.clear();
  tappedKeys_.set({});
  reconcile(std::vector<AudioApp>(lastApps_));
}

}  // namespace quellix
