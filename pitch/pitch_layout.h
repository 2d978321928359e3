// Memory layout of the pitch estimator's model block and per-stream context.
#pragma once
#include <cstddef>
#include <cstdint>

#include "../engine/corvina.h"
#include "../engine/half.h"
#include "../engine/shared_layout.h"

namespace corvina {

constexpr int kPitchWidth = 192;
constexpr int kPitchExpanded = 576;
constexpr int kPitchBlocks = 6;
constexpr int kPitchDepthwiseTaps = 33;
constexpr int kPitchBins = CORVINA_PITCH_BINS;
constexpr int kPitchHistory = 560;
constexpr int kSpectralBins = 64;
constexpr int kLags = 256;

struct alignas(64) Dense192Weights {
  f16 weight[kPitchWidth * kPitchWidth];  // Panel32
  f16 bias[kPitchWidth];
};
static_assert(sizeof(Dense192Weights) == 74112, "");

// The blocks are the shared residual convolution block at 192/576 channels and 33 taps.
using PitchBlockWeights = ResidualConvWeights<kPitchWidth, kPitchExpanded, kPitchDepthwiseTaps>;
using PitchBlockSlot = ResidualConvSlot<kPitchWidth, kPitchExpanded, kPitchDepthwiseTaps>;
static_assert(ResidualConvLayoutHolds<kPitchWidth, kPitchExpanded, kPitchDepthwiseTaps>(), "pitch block");
static_assert(sizeof(PitchBlockWeights) == 456960 && sizeof(PitchBlockSlot) == 28480, "");

struct alignas(64) PitchEstimatorBlock {
  std::uint8_t lead[64];  // never filled from the file; stays zero
  Dense192Weights spectral_in;      // tensors 1, 2: on the 192 spectral features
  Dense192Weights spectral_hidden;  // tensors 3, 4
  f16 lag_in[kPitchWidth * kLags];  // tensor 5: Panel32, 192 x 256
  f16 lag_in_bias[kPitchWidth];
  Dense192Weights lag_hidden;                      // tensors 7, 8
  f16 temporal_conv[3 * kPitchWidth * kPitchWidth];  // tensor 9: TapPanel32
  f16 temporal_conv_bias[kPitchWidth];
  f16 input_norm_scale[kPitchWidth];
  f16 input_norm_shift[kPitchWidth];
  PitchBlockWeights blocks[kPitchBlocks];
  f16 output_norm_scale[kPitchWidth];
  f16 output_norm_shift[kPitchWidth];
  f16 head[kPitchBins * kPitchWidth];  // Panel32, 384 x 192
  f16 head_bias[kPitchBins];
};
static_assert(sizeof(PitchEstimatorBlock) == 3434176, "pitch estimator block");
static_assert(offsetof(PitchEstimatorBlock, spectral_in) == 64, "");
static_assert(offsetof(PitchEstimatorBlock, spectral_in) + offsetof(Dense192Weights, bias) == 73792, "");
static_assert(offsetof(PitchEstimatorBlock, spectral_hidden) == 74176, "");
static_assert(offsetof(PitchEstimatorBlock, spectral_hidden) + offsetof(Dense192Weights, bias) == 147904, "");
static_assert(offsetof(PitchEstimatorBlock, lag_in) == 148288, "");
static_assert(offsetof(PitchEstimatorBlock, lag_in_bias) == 246592, "");
static_assert(offsetof(PitchEstimatorBlock, lag_hidden) == 246976, "");
static_assert(offsetof(PitchEstimatorBlock, temporal_conv) == 321088, "");
static_assert(offsetof(PitchEstimatorBlock, temporal_conv_bias) == 542272, "");
static_assert(offsetof(PitchEstimatorBlock, input_norm_scale) == 542656, "");
static_assert(offsetof(PitchEstimatorBlock, input_norm_shift) == 543040, "");
static_assert(offsetof(PitchEstimatorBlock, blocks) == 543424, "");
static_assert(offsetof(PitchEstimatorBlock, output_norm_scale) == 3285184, "");
static_assert(offsetof(PitchEstimatorBlock, output_norm_shift) == 3285568, "");
static_assert(offsetof(PitchEstimatorBlock, head) == 3285952, "");
static_assert(offsetof(PitchEstimatorBlock, head_bias) == 3433408, "");
static_assert(sizeof(PitchEstimatorBlock) - 64 == CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES, "");

struct alignas(64) PitchFrontEndState {
  float history[kPitchHistory];  // oldest first; the newest frame at 400..559
  float spectral[3 * kSpectralBins];  // log magnitudes, phase cosines, phase sines
  float lag[kLags];                   // lag 1 first
  float loudness;
  std::uint8_t reserved[60];
  float previous_spectrum[kSpectralBins][2];  // (real, imaginary) of bins 0..63
};
static_assert(sizeof(PitchFrontEndState) == 4608, "");

struct alignas(64) PitchContext {
  PitchFrontEndState front;
  float input_ring[2][kPitchWidth];  // input-stage outputs of the two previous frames
  std::int32_t input_ring_index;     // slot of the older one
  std::uint8_t reserved0[60];
  PitchBlockSlot blocks[kPitchBlocks];  // rings and the blocks' scratch
  // Scratch of the current frame.
  float spectral_hidden[kPitchWidth];
  float input_stage[kPitchWidth];
  float lag_hidden[kPitchWidth];
  float lag_stage[kPitchWidth];
  float conv_output[kPitchWidth];
  float output_norm[kPitchWidth];
  float scores[kPitchBins];
  // Outputs of the last frame.
  std::int32_t quantized_pitch;
  float pitch_features[CORVINA_PITCH_FEATURES];
  std::uint8_t reserved1[44];
  std::uint8_t reserved2[1472];
};
static_assert(sizeof(PitchContext) == 184768, "PitchContext1");
static_assert(offsetof(PitchContext, input_ring) == 4608, "");
static_assert(offsetof(PitchContext, blocks) == 6208, "");
static_assert(offsetof(PitchContext, spectral_hidden) == 177088, "");
static_assert(offsetof(PitchContext, output_norm) == 180928, "");
static_assert(offsetof(PitchContext, quantized_pitch) == 183232, "");

}  // namespace corvina
