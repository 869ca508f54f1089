#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "audio/pulse/PulseBackend.h"
#include "harness/SoundServer.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix::testing {

// A test against a private sound server of the kind it is instantiated for, with captured
// logs and, once connectBackend() ran, the real backend behind `hardware`.
class ServerTest : public ::testing::TestWithParam<SoundServer::Kind> {
 protected:
  void SetUp() override { server = std::make_unique<SoundServer>(GetParam()); }

  void TearDown() override {
    hardware.reset();
    backend.reset();
    server.reset();
  }

  void connectBackend(PulseBackend::Options options = {}) {
    backend = PulseBackend::create(std::move(options), logs);
    hardware = std::make_unique<AudioHardware>(backend);
  }

  // Polls `condition` while serving the main queue, where listeners arrive.
  bool eventually(const std::function<bool()>& condition) {
    return testing::eventually(condition, [&] { queue.drain(); });
  }

  ManualQueue queue;
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
  std::unique_ptr<SoundServer> server;
  std::shared_ptr<PulseBackend> backend;
  std::unique_ptr<AudioHardware> hardware;
};

inline std::string serverName(const ::testing::TestParamInfo<SoundServer::Kind>& info) {
  return SoundServer::name(info.param);
}

}  // namespace quellix::testing

// Runs every test of `Fixture` on PulseAudio and on PipeWire.
#define QUELLIX_ON_EVERY_SERVER(Fixture)                                             \
  INSTANTIATE_TEST_SUITE_P(Servers, Fixture,                                         \
                           ::testing::Values(testing::SoundServer::Kind::pulseAudio, \
                                             testing::SoundServer::Kind::pipeWire),  \
                           testing::serverName)
