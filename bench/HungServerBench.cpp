// The main thread's longest call during 50 writes and tap changes through the hardware layer
// (master volume, master mute, a tap built and taken down), with the private PulseAudio
// stopped by SIGSTOP, against the same calls with it running, in the same run.
//
//   hung_server_bench
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include "audio/CoreAudioSupport.h"
#include "audio/pulse/PulseBackend.h"
#include "engine/muting/ProcessMuteTap.h"
#include "harness/SoundServer.h"
#include "harness/TestPlayerProcess.h"
#include "support/Logger.h"
#include "support/TextError.h"

namespace {

using namespace quellix;
using Clock = std::chrono::steady_clock;

constexpr int kOperations = 50;

const AudioObjectPropertyAddress kVolume{kAudioHardwareServiceDeviceProperty_VirtualMainVolume,
                                         kAudioDevicePropertyScopeOutput, 0};
const AudioObjectPropertyAddress kMute{kAudioDevicePropertyMute, kAudioDevicePropertyScopeOutput,
                                       0};

// The longest of kOperations calls: a volume step, a mute flip, a tap's construction or its
// removal, in turn.
double worstCallMs(AudioHardware& hardware, AudioObjectID output, AudioObjectID process,
                   const std::shared_ptr<LogSink>& logs) {
  Clock::duration worst{};
  std::optional<ProcessMuteTap> tap;
  for (int i = 0; i < kOperations; ++i) {
    const auto begin = Clock::now();
    try {
      switch (i % 4) {
        case 0:
          write<Float32>(hardware, output, kVolume, 0.5f + 0.01f * static_cast<float>(i % 40));
          break;
        case 1:
          write<UInt32>(hardware, output, kMute, static_cast<UInt32>(i / 4 % 2));
          break;
        case 2:
          tap.emplace(hardware, "bench", std::vector<AudioObjectID>{process}, 0.0f, logs);
          break;
        default:
          if (tap) {
            tap->invalidate();
          }
          tap.reset();
          break;
      }
    } catch (const TextError& error) {
      std::fprintf(stderr, "operation %d: %s\n", i, error.what());
    }
    worst = std::max(worst, Clock::now() - begin);
  }
  if (tap) {
    tap->invalidate();
  }
  return std::chrono::duration<double, std::milli>(worst).count();
}

}  // namespace

int main() {
  testing::SoundServer server(testing::SoundServer::Kind::pulseAudio);
  testing::TestPlayerProcess player({});
  auto logs = std::make_shared<CapturingLogSink>();
  auto backend = PulseBackend::create({}, logs);
  AudioHardware hardware(backend);
  AudioObjectID process = kAudioObjectUnknown;
  if (!testing::eventually([&] {
        for (const AudioObjectID object : readProcessList(hardware)) {
          if (read<SInt32>(hardware, object, globalAddress(kAudioProcessPropertyPID), 0) ==
              player.pid()) {
            process = object;
          }
        }
        return process != kAudioObjectUnknown;
      })) {
    std::fprintf(stderr, "the player never showed up\n");
    return 1;
  }
  const auto output =
      read<UInt32>(hardware, 1, globalAddress(kAudioHardwarePropertyDefaultOutputDevice), 0);

  const double running = worstCallMs(hardware, output, process, logs);
  server.signal(SIGSTOP);
  const double stopped = worstCallMs(hardware, output, process, logs);
  server.signal(SIGCONT);

  std::printf("worst main-thread call of %d, server running: %.2f ms\n", kOperations, running);
  std::printf("worst main-thread call of %d, server stopped: %.2f ms (%.1fx)\n", kOperations,
              stopped, running > 0 ? stopped / running : 0.0);
  return 0;
}
