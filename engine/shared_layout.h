// Weights and per-stream slots of the layers that several networks share.
// Weights are half floats re-tiled at read time (Panel32: [out/32][in][32];
// TapPanel32: one Panel32 matrix per tap, taps outermost; TapMajor: [tap][ch]).
#pragma once
#include <cstddef>
#include <cstdint>

#include "half.h"

namespace corvina {

constexpr int kChannels = 256;
constexpr int kPanel = 32;

struct alignas(64) Dense256Weights {
  f16 weight[kChannels * kChannels];  // Panel32
  f16 bias[kChannels];
};
static_assert(sizeof(Dense256Weights) == 131584, "dense 256 -> 256 layer");
static_assert(offsetof(Dense256Weights, bias) == 131072, "");

struct alignas(64) Dense768Weights {
  f16 weight[3 * kChannels * kChannels];  // Panel32, 768 outputs
  f16 bias[3 * kChannels];
};
static_assert(sizeof(Dense768Weights) == 394752, "dense 256 -> 768 layer");
static_assert(offsetof(Dense768Weights, bias) == 393216, "");

constexpr int kCausalConvTaps = 7;
struct alignas(64) CausalConv7Weights {
  f16 weight[kCausalConvTaps * kChannels * kChannels];  // TapPanel32
  f16 bias[kChannels];
};
static_assert(sizeof(CausalConv7Weights) == 918016, "causal convolution, kernel 7");
static_assert(offsetof(CausalConv7Weights, bias) == 917504, "");

// A residual convolution block: a depthwise causal convolution of Taps taps
// over Channels, normalisation, an expansion to Hidden with GELU, a
// projection back, plus the block's input. The phone extractor and waveform
// generator run it at 256/768 channels and 17 taps, the pitch estimator at
// 192/576 and 33 (pitch/pitch_layout.h).
template <int Channels, int Hidden, int Taps>
struct alignas(64) ResidualConvWeights {
  static_assert(Channels % 64 == 0 && Hidden % kPanel == 0, "whole vector groups and panels");
  f16 depthwise[Taps * Channels];  // TapMajor: [Taps][Channels]
  f16 depthwise_bias[Channels];
  f16 expand[Hidden * Channels];  // Panel32, Hidden x Channels
  f16 expand_bias[Hidden];
  f16 project[Channels * Hidden];  // Panel32, Channels x Hidden
  f16 project_bias[Channels];
};

constexpr int kResidualTaps = 17;
constexpr int kHiddenChannels = 768;
using ResidualConvBlockWeights = ResidualConvWeights<kChannels, kHiddenChannels, kResidualTaps>;

// Per-stream slots. A zeroed slot is silence before the stream, position 0.
struct alignas(64) DenseSlot {
  float output[kChannels];
};
static_assert(sizeof(DenseSlot) == 1024, "");

struct alignas(64) CausalConv7Slot {
  float history[kCausalConvTaps - 1][kChannels];  // ring of the last six inputs
  float output[kChannels];
  std::int32_t position;  // ring index of the oldest frame
  std::uint8_t reserved[60];
};
static_assert(sizeof(CausalConv7Slot) == 7232, "");
static_assert(offsetof(CausalConv7Slot, output) == 6144, "");
static_assert(offsetof(CausalConv7Slot, position) == 7168, "");

// The block's ring holds the last Taps - 1 inputs, oldest at `position`.
template <int Channels, int Hidden, int Taps>
struct alignas(64) ResidualConvSlot {
  static_assert(Taps * Channels % 16 == 0, "position starts a cache line");
  float history[Taps - 1][Channels];
  float mixed[Channels];  // depthwise output, normalised in place
  std::int32_t position;
  std::uint8_t reserved[60];
  float hidden[Hidden];
  float output[Channels];
};

using ResidualConvBlockSlot = ResidualConvSlot<kChannels, kHiddenChannels, kResidualTaps>;

// For every shape: the weights lie end to end in file order, and the slot's
// ring index starts the cache line after the depthwise output.
template <int C, int H, int T>
constexpr bool ResidualConvLayoutHolds() {
  using W = ResidualConvWeights<C, H, T>;
  using S = ResidualConvSlot<C, H, T>;
  constexpr std::size_t h = sizeof(f16), f = sizeof(float);
  return offsetof(W, depthwise_bias) == h * T * C && offsetof(W, expand) == h * (T + 1) * C &&
         offsetof(W, expand_bias) == h * ((T + 1) * C + H * C) &&
         offsetof(W, project) == h * ((T + 1) * C + H * C + H) &&
         offsetof(W, project_bias) == h * ((T + 1) * C + 2 * H * C + H) && offsetof(S, mixed) == f * (T - 1) * C &&
         offsetof(S, position) == f * T * C && offsetof(S, hidden) == f * T * C + 64 &&
         offsetof(S, output) == f * (T * C + H) + 64;
}
static_assert(ResidualConvLayoutHolds<kChannels, kHiddenChannels, kResidualTaps>(), "residual convolution block");
static_assert(sizeof(ResidualConvBlockWeights) == 797696 && sizeof(ResidualConvBlockSlot) == 21568, "");

}  // namespace corvina
