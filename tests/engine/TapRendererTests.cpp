#include "engine/muting/TapRenderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace quellix {
namespace {

constexpr float kUntouched = -7.0f;

// Interleaved input frames (channel c of frame f is f * 10 + c + 1, scaled) and output buffers
// prefilled with a marker so that writes and non-writes both show.
struct Buffers {
  std::vector<std::vector<float>> inputs;
  std::vector<std::vector<float>> outputs;
  std::vector<AudioBuffer> inBuffers;
  std::vector<AudioBuffer> outBuffers;
  AudioBufferList inList{};
  AudioBufferList outList{};

  Buffers(std::vector<std::pair<UInt32, std::size_t>> inShapes,
          std::vector<std::pair<UInt32, std::size_t>> outShapes) {
    for (const auto& [channels, frames] : inShapes) {
      std::vector<float> samples(std::max<UInt32>(channels, 1) * frames);
      for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = 0.001f * static_cast<float>(i + 1) + (inputs.empty() ? 0.0f : 0.5f);
      }
      // A moved vector keeps its storage, so the buffer's pointer stays good.
      inBuffers.push_back({channels, static_cast<UInt32>(samples.size() * 4), samples.data()});
      inputs.push_back(std::move(samples));
    }
    for (const auto& [channels, frames] : outShapes) {
      auto& samples = outputs.emplace_back(std::max<UInt32>(channels, 1) * frames, kUntouched);
      outBuffers.push_back({channels, static_cast<UInt32>(samples.size() * 4), samples.data()});
    }
    inList = {static_cast<UInt32>(inBuffers.size()), inBuffers.data()};
    outList = {static_cast<UInt32>(outBuffers.size()), outBuffers.data()};
  }

  void render(float gain) { TapRenderer::render(gain, &inList, &outList); }
};

TEST(TapRenderer, WritesNothingUnlessTheGainIsPositive) {
  for (float gain : {0.0f, -0.0f, -0.5f, std::numeric_limits<float>::quiet_NaN(),
                     -std::numeric_limits<float>::infinity()}) {
    Buffers buffers({{2, 64}}, {{2, 64}, {4, 64}});
    buffers.render(gain);
    for (const auto& output : buffers.outputs) {
      for (float sample : output) {
        ASSERT_EQ(sample, kUntouched) << gain;
      }
    }
  }
}

TEST(TapRenderer, CopiesBitExactFromTheThresholdAndMultipliesBelowIt) {
  Buffers copy({{2, 100}}, {{2, 100}});
  copy.render(0.9995f);
  EXPECT_EQ(std::memcmp(copy.outputs[0].data(), copy.inputs[0].data(), 800), 0);

  Buffers scaled({{2, 100}}, {{2, 100}});
  scaled.render(0.998f);
  for (std::size_t i = 0; i < 200; ++i) {
    ASSERT_EQ(scaled.outputs[0][i], scaled.inputs[0][i] * 0.998f) << i;
  }
}

TEST(TapRenderer, RemapsChannelsWithoutAUnityShortcut) {
  Buffers wide({{2, 3}}, {{4, 3}});
  wide.render(1.0f);
  for (std::size_t frame = 0; frame < 3; ++frame) {
    for (std::size_t channel = 0; channel < 4; ++channel) {
      EXPECT_EQ(wide.outputs[0][frame * 4 + channel], wide.inputs[0][frame * 2 + channel % 2]);
    }
  }

  Buffers mono({{2, 3}}, {{1, 3}});
  mono.render(0.5f);
  for (std::size_t frame = 0; frame < 3; ++frame) {
    EXPECT_EQ(mono.outputs[0][frame], mono.inputs[0][frame * 2] * 0.5f);
  }

  // A channel count of 0 counts as 1: mono input feeds both output channels.
  Buffers zero({{0, 4}}, {{2, 4}});
  zero.render(0.5f);
  EXPECT_EQ(zero.outputs[0][6], zero.inputs[0][3] * 0.5f);
  EXPECT_EQ(zero.outputs[0][7], zero.inputs[0][3] * 0.5f);
}

TEST(TapRenderer, WritesOnlyTheFramesBothBuffersHave) {
  Buffers shorter({{2, 10}}, {{2, 4}});
  shorter.render(0.5f);
  EXPECT_EQ(shorter.outputs[0][7], shorter.inputs[0][7] * 0.5f);

  Buffers longer({{2, 4}}, {{2, 10}, {4, 10}});
  longer.render(0.5f);
  EXPECT_EQ(longer.outputs[0][7], longer.inputs[0][7] * 0.5f);
  EXPECT_EQ(longer.outputs[0][8], kUntouched);
  EXPECT_EQ(longer.outputs[0][19], kUntouched);
  EXPECT_EQ(longer.outputs[1][15], longer.inputs[0][7] * 0.5f);
  EXPECT_EQ(longer.outputs[1][16], kUntouched);
}

TEST(TapRenderer, ReadsOnlyTheFirstInputBufferAndSkipsOutputsWithoutData) {
  Buffers buffers({{2, 8}, {2, 8}}, {{2, 8}, {2, 8}});
  buffers.outBuffers[0].mData = nullptr;
  buffers.render(1.0f);
  EXPECT_EQ(buffers.outputs[0][0], kUntouched);
  EXPECT_EQ(buffers.outputs[1], buffers.inputs[0]);

  Buffers empty({{2, 8}}, {{2, 8}});
  empty.inList.mNumberBuffers = 0;
  empty.render(1.0f);
  empty.inList.mNumberBuffers = 1;
  empty.inBuffers[0].mData = nullptr;
  empty.render(1.0f);
  EXPECT_EQ(empty.outputs[0][0], kUntouched);
}

}  // namespace
}  // namespace quellix
