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
static_assert(sizeof(ResidualConvBlockWeights) == 797696, "residual convolution block");
static_assert(offsetof(ResidualConvBlockWeights, depthwise_bias) == 8704, "");
static_assert(offsetof(ResidualConvBlockWeights, expand) == 9216, "");
static_assert(offsetof(ResidualConvBlockWeights, expand_bias) == 402432, "");
static_assert(offsetof(ResidualConvBlockWeights, project) == 403968, "");
static_assert(offsetof(ResidualConvBlockWeights, project_bias) == 797184, "");

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
static_assert(sizeof(ResidualConvBlockSlot) == 21568, "");
static_assert(offsetof(ResidualConvBlockSlot, mixed) == 16384, "");
static_assert(offsetof(ResidualConvBlockSlot, position) == 17408, "");
static_assert(offsetof(ResidualConvBlockSlot, hidden) == 17472, "");
static_assert(offsetof(ResidualConvBlockSlot, output) == 20544, "");

}  // namespace corvina
