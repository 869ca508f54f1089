#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "audio/sim/SimAudioBackend.h"
#include "support/Logger.h"
#include "support/ManualQueue.h"

namespace quellix::testing {

// Every test gets a fresh simulated audio system, a manual main queue and captured logs.
class SimTest : public ::testing::Test {
 protected:
  // The usual system: one stereo output device that is the default.
  AudioObjectID addDefaultOutput(const std::string& uid = "speakers") {
    const AudioObjectID device = sim->addDevice({.uid = uid});
    sim->setDefaultOutputDevice(device);
    queue.drain();
    return device;
  }

  std::shared_ptr<SimAudioBackend> sim = std::make_shared<SimAudioBackend>();
  AudioHardware hardware{sim};
  ManualQueue queue;
  std::shared_ptr<CapturingLogSink> logs = std::make_shared<CapturingLogSink>();
};

// A directory that is removed with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quellix-test-XXXXXX").string();
  path_ = ::mkdtemp(pattern.data());
}

inline TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

// A file with these contents, its folders made as needed.
inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path) << contents;
}

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace quellix::testing
