#include "engine/monitor/AudioProcessMonitor.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <span>
#include <string_view>

#include "audio/CoreAudioSupport.h"
#include "desktop/apps/LocalizedCompare.h"

namespace quellix {
namespace {

constexpr const char* kFallbackSymbol = "waveform";
constexpr const char* kUnnamedProcessPrefix = "Prozess ";

// Executables no user wants as a row: the sound server and the session manager themselves,
// and other volume controls, whose level meters record every output.
constexpr std::string_view kHiddenExecutables[] = {
    "pipewire",   "pipewire-pulse", "pipewire-media-session", "wireplumber",
    "pulseaudio", "pavucontrol",    "pavucontrol-qt",         "pwvucontrol",
    "pasystray",  "kmix",
};

// The application ids volume controls give their level meters' streams, so that one mixer
// can leave out another's meters. A panel's volume plugin meters under them too, inside the
// panel's process: the process carries the id of its first stream, and that is a meter's only
// while it plays nothing.
constexpr std::string_view kHiddenApplicationIDs[] = {
    "org.PulseAudio.pavucontrol",
    "org.gnome.VolumeControl",
    "org.kde.kmixd",
};

bool isOneOf(const std::optional<std::string>& value, std::span<const std::string_view> hidden) {
  return value && std::find(hidden.begin(), hidden.end(), *value) != hidden.end();
}

}  // namespace

std::string AudioApp::key() const {
  return bundleID ? *bundleID : "pid:" + std::to_string(id);
}

const RunningApplication* RunningApplications::find(pid_t pid) {
  if (workspace_ == nullptr) {
    const auto found = fixed_.find(pid);
    return found == fixed_.end() ? nullptr : &found->second;
  }
  auto [entry, inserted] = looked_.try_emplace(pid);
  if (inserted) {
    entry->second = workspace_->application(pid);
  }
  return entry->second ? &*entry->second : nullptr;
}

std::shared_ptr<AudioProcessMonitor> AudioProcessMonitor::create(
    MainQueue& queue, AudioHardware& hardware, std::shared_ptr<Workspace> workspace,
    std::shared_ptr<LogSink> logs) {
  return std::shared_ptr<AudioProcessMonitor>(
      new AudioProcessMonitor(queue, hardware, std::move(workspace), std::move(logs)));
}

AudioProcessMonitor::AudioProcessMonitor(MainQueue& queue, AudioHardware& hardware,
                                         std::shared_ptr<Workspace> workspace,
                                         std::shared_ptr<LogSink> logs)
    : queue_(queue),
      hardware_(hardware),
      workspace_(std::move(workspace)),
      logger_(std::move(logs), "AudioProcessMonitor") {}

AudioObjectPropertyListenerBlock AudioProcessMonitor::makeRefreshListener() {
  return makeListenerBlock(
      [weakSelf = weak_from_this(), &queue = queue_](UInt32, const AudioObjectPropertyAddress*) {
        queue.post([weakSelf] {
          if (auto self = weakSelf.lock()) {
            self->refresh();
          }
        });
      });
}

void AudioProcessMonitor::start() {
  if (listListener_) {
    return;
  }
  auto listener = makeRefreshListener();
  const OSStatus status = hardware_.AudioObjectAddPropertyListenerBlock(
      kAudioObjectSystemObject, &listAddress_, &queue_, listener);
  if (status != kAudioHardwareNoError) {
    logger_.error("Process-list listener failed: " + std::to_string(status));
  } else {
    listListener_ = std::move(listener);
  }
  refresh();
  periodicRefresh_ = queue_.everyWeak(kRefreshInterval, shared_from_this(),
                                      [](AudioProcessMonitor& monitor) { monitor.refresh(); });
}

void AudioProcessMonitor::refresh() {
  std::vector<AudioObjectID> processList;
  try {
    processList = readProcessList(hardware_);
  } catch (const TextError& error) {
    logger_.error("readProcessList failed: " + error.description());
    return;
  }
  workspace_->refresh();
  RunningApplications runningByPID(*workspace_);
  const pid_t ownPID = ::getpid();

  std::map<pid_t, AudioApp> byOwner;
  for (const AudioObjectID object : processList) {
    SInt32 pid = 0;
    try {
      pid = read<SInt32>(hardware_, object, globalAddress(kAudioProcessPropertyPID), 0);
      // Quellix's own streams are its taps' playback.
      if (pid < 0 || pid == ownPID) {
        continue;
      }
      if (read<UInt32>(hardware_, object, globalAddress(kAudioProcessPropertyIsRunning), 0) != 1) {
        continue;
      }
    } catch (const TextError&) {
      continue;
    }
    const auto ownBundleID = readProcessBundleID(hardware_, object);
    // By the process itself, not its owner: a volume control started from a terminal is still
    // no row of the terminal's.
    if (isOneOf(processName(pid), kHiddenExecutables) ||
        isOneOf(ownBundleID, kHiddenApplicationIDs)) {
      continue;
    }
    const auto owner = resolveOwningApp(pid, runningByPID);
    const pid_t ownerPID = owner ? owner->pid : pid;
    const auto bundleID = owner && owner->bundleIdentifier ? owner->bundleIdentifier : ownBundleID;

    std::string name;
    if (owner && owner->localizedName) {
      name = *owner->localizedName;
    } else if (auto streamsName = readProcessApplicationName(hardware_, object)) {
      // Without a desktop entry the streams' name is the one the user knows: paplay, say,
      // runs as the executable pacat.
      name = std::move(*streamsName);
    } else if (ownBundleID) {
      name = ownBundleID->substr(ownBundleID->rfind('.') + 1);
    } else if (auto executable = processName(pid)) {
      name = std::move(*executable);
    } else {
      name = kUnnamedProcessPrefix + std::to_string(pid);
    }
    bool playing = false;
    try {
      playing = read<std::int64_t>(hardware_, object,
                                   globalAddress(kAudioProcessPropertyIsRunningOutput), 0) == 1;
    } catch (const TextError&) {
    }

    if (auto found = byOwner.find(ownerPID); found != byOwner.end()) {
      auto& ids = found->second.processObjectIDs;
      ids.push_back(object);
      std::sort(ids.begin(), ids.end());
      found->second.isPlaying = found->second.isPlaying || playing;
    } else {
      AudioApp app;
      app.id = ownerPID;
      app.name = std::move(name);
      app.bundleID = bundleID;
      app.processObjectIDs = {object};
      app.isPlaying = playing;
      app.icon =
          owner && !owner->icon.empty() ? AppIcon{owner->icon, {}} : AppIcon{{}, kFallbackSymbol};
      byOwner.emplace(ownerPID, std::move(app));
    }
  }
  syncListeners(processList);

  std::vector<AudioApp> apps;
  for (auto& entry : byOwner) {
    apps.push_back(std::move(entry.second));
  }
  std::stable_sort(apps.begin(), apps.end(), [](const AudioApp& a, const AudioApp& b) {
    return localizedCaseInsensitiveCompare(a.name, b.name) < 0;
  });

  // Only a change of applications or of their process objects reaches the controller.
  auto objectsByKey = [](const std::vector<AudioApp>& list) {
    std::map<std::string, std::vector<AudioObjectID>> map;
    for (const auto& app : list) {
      map[app.key()] = app.processObjectIDs;  // two instances of one app: the last one stands
    }
    return map;
  };
  const auto before = objectsByKey(apps_.get());
  const auto after = objectsByKey(apps);
  apps_.set(apps);
  if (before == after) {
    return;
  }
  if (onChange_) {
    onChange_(apps);
  }
}

void AudioProcessMonitor::syncListeners(const std::vector<AudioObjectID>& processObjectIDs) {
  const std::set<AudioObjectID> wanted(processObjectIDs.begin(), processObjectIDs.end());
  for (auto it = processListeners_.begin(); it != processListeners_.end();) {
    if (wanted.count(it->first) > 0) {
      ++it;
      continue;
    }
    for (const auto& [address, listener] : it->second) {
      hardware_.AudioObjectRemovePropertyListenerBlock(it->first, &address, &queue_, listener);
    }
    it = processListeners_.erase(it);
  }
  for (const AudioObjectID object : wanted) {
    if (processListeners_.count(object) == 0) {
      addListeners(object);
    }
  }
}

void AudioProcessMonitor::addListeners(AudioObjectID object) {
  std::vector<std::pair<AudioObjectPropertyAddress, AudioObjectPropertyListenerBlock>> kept;
  for (const auto selector :
       {kAudioProcessPropertyIsRunning, kAudioProcessPropertyIsRunningOutput}) {
    const auto address = globalAddress(selector);
    auto listener = makeRefreshListener();
    if (hardware_.AudioObjectAddPropertyListenerBlock(object, &address, &queue_, listener) ==
        kAudioHardwareNoError) {
      kept.emplace_back(address, std::move(listener));
    }
  }
  if (!kept.empty()) {
    processListeners_.emplace(object, std::move(kept));
  }
}

std::optional<RunningApplication> AudioProcessMonitor::resolveOwningApp(
    pid_t pid, RunningApplications& runningByPID) {
  auto proper = [&](pid_t candidate) -> const RunningApplication* {
    const auto* application = runningByPID.find(candidate);
    return application != nullptr && application->isProperApplication() ? application : nullptr;
  };
  if (const auto* direct = proper(pid)) {
    return *direct;
  }
  if (pid < 2) {
    return std::nullopt;
  }
  std::set<pid_t> visited;
  for (pid_t current = pid;;) {
    if (!visited.insert(current).second) {
      return std::nullopt;
    }
    if (const auto* application = proper(current)) {
      return *application;
    }
    const auto parent = workspace_->parentPID(current);
    if (!parent || *parent == current || *parent < 2) {
      return std::nullopt;
    }
    current = *parent;
  }
}

std::optional<std::string> AudioProcessMonitor::processName(pid_t pid) {
  return workspace_->processName(pid);
}

}  // namespace quellix
