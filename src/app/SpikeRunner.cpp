#include "app/SpikeRunner.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <cctype>

#include "audio/AudioHardware.h"
#include "audio/CoreAudioSupport.h"
#include "engine/monitor/AudioProcessMonitor.h"
#include "engine/muting/ProcessMuteTap.h"
#include "engine/volume/SystemVolumeController.h"
#include "support/DefaultsStore.h"
#include "support/Logger.h"
#include "support/Parsing.h"
#include "support/TextError.h"
#include "support/UtcTime.h"

namespace quellix::SpikeRunner {
namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

bool appendToExistingFile(const std::filesystem::path& path, std::string_view line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  std::size_t written = 0;
  while (written < line.size()) {
    const ssize_t result = ::write(fd, line.data() + written, line.size() - written);
    if (result < 0 && errno == EINTR) {
      continue;
    }
    if (result <= 0) {
      break;
    }
    written += static_cast<std::size_t>(result);
  }
  ::close(fd);
  return true;
}

std::string joinIDs(const std::vector<AudioObjectID>& ids) {
  std::string text = "[";
  for (std::size_t i = 0; i < ids.size(); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(ids[i]);
  }
  return text + "]";
}

long long truncatedPercent(double volume) {
  return static_cast<long long>(volume * 100.0);
}

}  // namespace

void log(const Context& context, std::string_view message) {
  Logger(context.logs, "Spike").info(message);
  std::string line(message);
  line += '\n';
  if (appendToExistingFile(context.logFile, line)) {
    return;
  }
  try {
    writeFileAtomically(context.logFile, line);
  } catch (const TextError&) {
    // The line survives in the system log.
  }
}

int taps(const Context& context) {
  const AudioObjectPropertyAddress address{kAudioHardwarePropertyTapList,
                                           kAudioObjectPropertyScopeGlobal,
                                           kAudioObjectPropertyElementMain};
  UInt32 size = 0;
  OSStatus status = context.hardware.AudioObjectGetPropertyDataSize(kAudioObjectSystemObject,
                                                                    &address, 0, nullptr, &size);
  if (status != kAudioHardwareNoError) {
    log(context, "TapList size error: " + std::to_string(status));
    return kFailure;
  }
  std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID), 0);
  UInt32 dataSize = static_cast<UInt32>(ids.size() * sizeof(AudioObjectID));
  status = context.hardware.AudioObjectGetPropertyData(kAudioObjectSystemObject, &address, 0,
                                                       nullptr, &dataSize, ids.data());
  if (status != kAudioHardwareNoError) {
    log(context, "TapList read error: " + std::to_string(status));
    return kFailure;
  }
  log(context, "Taps im System: " + std::to_string(ids.size()) + " " + joinIDs(ids));
  return kSuccess;
}

std::string currentDateDescription() {
  return currentUtcTime("%Y-%m-%d %H:%M:%S +0000");
}

int list(const Context& context) {
  log(context, "=== Quellix List @ " + currentDateDescription());
  auto workspace =
      std::make_shared<Workspace>(context.workspaceRoots.value_or(Workspace::systemRoots()));
  auto monitor = AudioProcessMonitor::create(context.queue, context.hardware, std::move(workspace),
                                             context.logs);
  monitor->refresh();
  const auto& apps = monitor->apps().get();
  for (const auto& app : apps) {
    log(context, "  " + app.name + " [" + app.bundleID.value_or("-") + "] pid=" +
                     std::to_string(app.id) + " objects=" + joinIDs(app.processObjectIDs) +
                     " playing=" + (app.isPlaying ? "true" : "false"));
  }
  log(context, "Gesamt: " + std::to_string(apps.size()) + " App(s)");
  return kSuccess;
}

namespace {

constexpr auto kSpikeDuration = std::chrono::seconds(10);

std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The PID a target names: itself when it is a number, else the first running application
// whose name, or failing that bundle identifier, contains it.
pid_t targetPID(const Context& context, const std::string& target) {
  if (const auto pid = parseStrictInt32(target)) {
    log(context, "Ziel: pid " + std::to_string(*pid) + " (direkt)");
    return *pid;
  }
  const std::string wanted = lowerCased(target);
  Workspace workspace(context.workspaceRoots.value_or(Workspace::systemRoots()));
  const auto applications = workspace.runningApplications();
  auto contains = [&](const std::optional<std::string>& text) {
    return text && lowerCased(*text).find(wanted) != std::string::npos;
  };
  auto match = std::find_if(applications.begin(), applications.end(),
                            [&](const auto& app) { return contains(app.localizedName); });
  if (match == applications.end()) {
    match = std::find_if(applications.begin(), applications.end(),
                         [&](const auto& app) { return contains(app.bundleIdentifier); });
  }
  if (match == applications.end()) {
    throw TextError("Keine laufende App passt auf '" + target + "'");
  }
  log(context, "Ziel: " + match->localizedName.value_or("?") + " (" +
                   match->bundleIdentifier.value_or("?") + "), pid " + std::to_string(match->pid));
  return match->pid;
}

}  // namespace

int run(const Context& context, const std::string& target) {
  log(context, "=== Quellix Spike @ " + currentDateDescription() + " — target: " + target);
  try {
    const pid_t pid = targetPID(context, target);
    std::vector<AudioObjectID> matched;
    for (const AudioObjectID object : readProcessList(context.hardware)) {
      SInt32 objectPID = 0;
      try {
        objectPID =
            read<SInt32>(context.hardware, object, globalAddress(kAudioProcessPropertyPID), 0);
      } catch (const TextError&) {
        continue;
      }
      if (objectPID != pid) {
        continue;
      }
      bool runningOutput = false;
      try {
        runningOutput =
            read<std::int64_t>(context.hardware, object,
                               globalAddress(kAudioProcessPropertyIsRunningOutput), 0) == 1;
      } catch (const TextError&) {
      }
      log(context, "  match: object #" + std::to_string(object) +
                       " pid=" + std::to_string(objectPID) +
                       " bundle=" + readProcessBundleID(context.hardware, object).value_or("?") +
                       " runningOutput=" + (runningOutput ? "true" : "false"));
      matched.push_back(object);
    }
    if (matched.empty()) {
      throw TextError("Kein Prozess-AudioObject für pid " + std::to_string(pid) +
                      " gefunden — spielt die App gerade Audio?");
    }
    ProcessMuteTap tap(context.hardware, target, matched, 0.0f, context.logs);
    log(context, "Tap #" + std::to_string(tap.tapID()) +
                     " aktiv — Audio der Ziel-App sollte JETZT stumm sein (10 s) …");
    context.queue.runFor(kSpikeDuration);
    tap.invalidate();
    log(context, "Tap zerstört — Audio sollte wieder zu hören sein. Spike OK.");
    return kSuccess;
  } catch (const TextError& error) {
    log(context, "FEHLER: " + error.description());
    return kFailure;
  }
}

int setVolume(const Context& context, const std::string& volume) {
  const auto percent = parseStrictDouble(volume);
  if (!percent || !(*percent >= 0.0 && *percent <= 100.0)) {
    log(context, "--volset erwartet 0–100");
    return kFailure;
  }
  const auto controller =
      SystemVolumeController::create(context.queue, context.hardware, context.logs);
  const double before = controller->volume().get();
  controller->setVolume(*percent / 100.0);
  log(context, "Volume: " + std::to_string(truncatedPercent(before)) + " % → " +
                   std::to_string(truncatedPercent(controller->volume().get())) +
                   " % (adjustable=" + (controller->isAdjustable().get() ? "true" : "false") + ")");
  return kSuccess;
}

}  // namespace quellix::SpikeRunner
