#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include <cstdlib>

#include "audio/pipewire/PipeWireBackend.h"
#include "audio/pulse/PulseBackend.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix::testing {

// The server a test runs on and the backend that talks to it: libpulse to PulseAudio, libpulse
// to PipeWire (through pipewire-pulse), or PipeWire natively.
enum class ServerSetup { pulseAudio, pipeWire, pipeWireNative };

// A test against a private sound server of the kind it is instantiated for, with captured
// logs and, once connectBackend() ran, the real backend behind `hardware`. On the native setup
// `backend` stays null and `nativeBackend` is the one; the programs a test starts use it too.
class ServerTest : public ::testing::TestWithParam<ServerSetup> {
 protected:
  void SetUp() override {
    server = std::make_unique<SoundServer>(GetParam() == ServerSetup::pulseAudio
                                               ? SoundServer::Kind::pulseAudio
                                               : SoundServer::Kind::pipeWire);
    if (isNative()) {
      setenv("QUELLIX_AUDIO_BACKEND", "pipewire", 1);
    }
  }

  void TearDown() override {
    hardware.reset();
    backend.reset();
    nativeBackend.reset();
    server.reset();
    unsetenv("QUELLIX_AUDIO_BACKEND");
  }

  bool isNative() const { return GetParam() == ServerSetup::pipeWireNative; }

  void connectBackend(PulseBackend::Options options = {}) {
    if (isNative()) {
      nativeBackend = PipeWireBackend::create({}, logs);
      hardware = std::make_unique<AudioHardware>(nativeBackend);
      return;
    }
    backend = PulseBackend::create(std::move(options), logs);
    hardware = std::make_unique<AudioHardware>(backend);
  }

  // The model of whichever backend runs.
  std::shared_ptr<const pulse::AudioSnapshot> snapshot() const {
    return nativeBackend ? nativeBackend->snapshot() : backend->snapshot();
  }

  // Polls `condition` while serving the main queue, where listeners arrive.
  bool eventually(const std::function<bool()>& condition) {
    return testing::eventually(condition, [&] { queue.drain(); });
  }

  ManualQueue queue;
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  std::unique_ptr<SoundServer> server;
  std::shared_ptr<PulseBackend> backend;
  std::shared_ptr<PipeWireBackend> nativeBackend;
  std::unique_ptr<AudioHardware> hardware;
};

inline std::string serverName(const ::testing::TestParamInfo<ServerSetup>& info) {
  switch (info.param) {
    case ServerSetup::pulseAudio:
      return "PulseAudio";
    case ServerSetup::pipeWire:
      return "PipeWire";
    case ServerSetup::pipeWireNative:
      return "PipeWireNative";
  }
  return "";
}

}  // namespace quellix::testing

// Runs every test of `Fixture` on PulseAudio and on PipeWire, through libpulse.
#define QUELLIX_ON_EVERY_SERVER(Fixture)                                                   \
  INSTANTIATE_TEST_SUITE_P(                                                                \
      Servers, Fixture,                                                                    \
      ::testing::Values(testing::ServerSetup::pulseAudio, testing::ServerSetup::pipeWire), \
      testing::serverName)

// Runs every test of `Fixture` also on PipeWire's native backend.
#define QUELLIX_ON_EVERY_BACKEND(Fixture)                                                 \
  INSTANTIATE_TEST_SUITE_P(                                                               \
      Servers, Fixture,                                                                   \
      ::testing::Values(testing::ServerSetup::pulseAudio, testing::ServerSetup::pipeWire, \
                        testing::ServerSetup::pipeWireNative),                            \
      testing::serverName)
