#include "engine/muting/TapRenderer.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace quellix {
namespace {

constexpr UInt32 kBytesPerSample = sizeof(float);

UInt32 channelsOf(const AudioBuffer& buffer) {
  return std::max<UInt32>(buffer.mNumberChannels, 1);
}

// A division by a variable costs more than copying a small buffer; the usual layouts divide
// by a constant, which compiles to a shift.
std::size_t framesIn(const AudioBuffer& buffer, UInt32 channels) {
  switch (channels) {
    case 1:
      return buffer.mDataByteSize / kBytesPerSample;
    case 2:
      return buffer.mDataByteSize / (2 * kBytesPerSample);
    default:
      return buffer.mDataByteSize / (channels * kBytesPerSample);
  }
}

// Built for AVX2 as well as the baseline; the loader picks one once, so the IO thread pays
// nothing for the choice.
// Sanitizer runtimes start after the loader has resolved the clones; keep those builds plain.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUELLIX_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUELLIX_SANITIZED 1
#endif
#endif

#if defined(__x86_64__) && !defined(QUELLIX_SANITIZED)
#define QUELLIX_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define QUELLIX_VECTOR_CLONES
#endif

// Eight samples at a time through a vector register: plain loads and stores at the widest
// width the processor has, bit-exact, and without the start-up cost of the library memcpy,
// which loses to this on IO-sized buffers.
typedef float SampleBlock __attribute__((vector_size(32), aligned(4), may_alias));
constexpr std::size_t kSamplesPerBlock = sizeof(SampleBlock) / sizeof(float);

// Compilers would otherwise recognise the loop and call memcpy after all.
#if defined(__clang__)
#define QUELLIX_NO_MEMCPY_CALL __attribute__((no_builtin("memcpy")))
#else
#define QUELLIX_NO_MEMCPY_CALL __attribute__((optimize("no-tree-loop-distribute-patterns")))
#endif

QUELLIX_VECTOR_CLONES QUELLIX_NO_MEMCPY_CALL void copy(float* __restrict out,
                                                       const float* __restrict in,
                                                       std::size_t count) {
  std::size_t i = 0;
  for (; i + kSamplesPerBlock <= count; i += kSamplesPerBlock) {
    *reinterpret_cast<SampleBlock*>(out + i) = *reinterpret_cast<const SampleBlock*>(in + i);
  }
  for (; i < count; ++i) {
    out[i] = in[i];
  }
}

QUELLIX_VECTOR_CLONES
void multiply(float* __restrict out, const float* __restrict in, std::size_t count, float gain) {
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = in[i] * gain;
  }
}

// Channel by channel, so the inner loop has no modulo: mono input feeds every output channel,
// surplus input channels are dropped.
QUELLIX_VECTOR_CLONES
void remap(float* __restrict out, UInt32 outChannels, const float* __restrict in, UInt32 inChannels,
           std::size_t frames, float gain) {
  for (UInt32 channel = 0; channel < outChannels; ++channel) {
    const float* source = in + channel % inChannels;
    float* target = out + channel;
    for (std::size_t frame = 0; frame < frames; ++frame) {
      target[frame * outChannels] = source[frame * inChannels] * gain;
    }
  }
}

}  // namespace

std::shared_ptr<TapRenderer> TapRenderer::create(float gain) {
  return std::shared_ptr<TapRenderer>(new TapRenderer(gain));
}

TapRenderer::TapRenderer(float gain) : gainBits_(std::bit_cast<std::uint32_t>(gain)) {}

void TapRenderer::setGain(float gain) {
  gainBits_.store(std::bit_cast<std::uint32_t>(gain), std::memory_order_relaxed);
}

float TapRenderer::gain() const {
  return std::bit_cast<float>(gainBits_.load(std::memory_order_relaxed));
}

AudioDeviceIOBlock TapRenderer::makeIOBlock() {
  return [renderer = shared_from_this()](const AudioTimeStamp*, const AudioBufferList* input,
                                         const AudioTimeStamp*, AudioBufferList* output,
                                         const AudioTimeStamp*) {
    render(renderer->gain(), input, output);
  };
}

void TapRenderer::render(float gain, const AudioBufferList* input, AudioBufferList* output) {
  // Muted, negative or not a number: the output stays the silence the device handed us.
  if (!(gain > 0.0f)) {
    return;
  }
  if (input == nullptr || input->mNumberBuffers == 0 || input->mBuffers[0].mData == nullptr ||
      output == nullptr) {
    return;
  }
  // Only the first input buffer is read; every output is fed from it.
  const AudioBuffer& source = input->mBuffers[0];
  const UInt32 inChannels = channelsOf(source);
  const std::size_t inFrames = framesIn(source, inChannels);
  const auto* in = static_cast<const float*>(source.mData);

  for (UInt32 index = 0; index < output->mNumberBuffers; ++index) {
    AudioBuffer& target = output->mBuffers[index];
    if (target.mData == nullptr) {
      continue;
    }
    const UInt32 outChannels = channelsOf(target);
    const std::size_t frames = std::min(framesIn(target, outChannels), inFrames);
    auto* out = static_cast<float*>(target.mData);
    if (outChannels == inChannels) {
      const std::size_t samples = frames * inChannels;
      if (gain >= kCopyThreshold) {
        copy(out, in, samples);
      } else {
        multiply(out, in, samples, gain);
      }
    } else {
      remap(out, outChannels, in, inChannels, frames, gain);
    }
  }
}

}  // namespace quellix
