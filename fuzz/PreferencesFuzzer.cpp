// The preferences file as a user, a crash or a broken disk may leave it: loaded, used by the
// mute controller, written back and loaded again. What we write must load without complaint
// and give back the same choices.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "audio/sim/SimAudioBackend.h"
#include "engine/muting/MuteController.h"
#include "support/DefaultsStore.h"
#include "support/ManualQueue.h"

namespace {

using namespace quellix;

struct Folder {
  Folder() {
    // Memory-backed when there is such a place: every write is synced to its disk.
    std::error_code error;
    const auto base = std::filesystem::is_directory("/dev/shm", error)
                          ? std::filesystem::path("/dev/shm")
                          : std::filesystem::temp_directory_path();
    std::string pattern = (base / "quellix-fuzz-XXXXXX").string();
    path = ::mkdtemp(pattern.data());
  }
  ~Folder() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  std::filesystem::path path;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Folder folder;
  static const auto logs = std::make_shared<CapturingLogSink>();
  for (const auto& file : std::filesystem::directory_iterator(folder.path)) {
    std::filesystem::remove_all(file.path());
  }
  const auto path = folder.path / "preferences.json";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

  auto sim = std::make_shared<SimAudioBackend>();
  AudioHardware hardware(sim);
  ManualQueue queue;
  ManualWallClock clock;
  sim->setDefaultOutputDevice(sim->addDevice({.uid = "speakers"}));
  AudioApp app;
  app.id = 10;
  app.name = "Player";
  app.bundleID = "org.example.Player";
  app.processObjectIDs = {sim->addProcess({.pid = 10})};
  {
    DefaultsStore store(path, queue, logs);  // written once, at the flush below
    store.boolean("onboardingCompleted");
    store.string("updateFeedURL");
    auto controller = MuteController::create(queue, hardware, store, clock, logs);
    // Muted and unmuted again (or the other way round): every key of the controller is
    // written, and its choices end where they began.
    controller->reconcile({app});
    controller->toggle(app);
    clock.advance(std::chrono::seconds(1));
    controller->toggle(app);
    queue.drain();
    // Keys of one run's processes are never stored.
    auto mutedKeys = controller->mutedKeys().get();
    std::erase_if(mutedKeys, [](const auto& key) { return key.starts_with("pid:"); });
    auto volumes = controller->volumes().get();
    std::erase_if(volumes, [](const auto& entry) { return entry.first.starts_with("pid:"); });
    const auto muteCount = controller->statsMuteCount().get();
    store.flush();

    logs->clear();
    DefaultsStore reloadedStore(path, queue, logs);
    const auto reloaded = MuteController::create(queue, hardware, reloadedStore, clock, logs);
    if (!logs->messages("Defaults").empty() || reloaded->mutedKeys().get() != mutedKeys ||
        reloaded->volumes().get() != volumes || reloaded->statsMuteCount().get() != muteCount) {
      std::abort();
    }
  }
  queue.drain();
  logs->clear();
  return 0;
}
