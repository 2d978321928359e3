// Input stage, 3-tap causal convolution, six depthwise blocks and the head,
// on the AVX2 kernels. This file holds no vector code of its own, so it is
// built without ISA flags.
#include "pitch_network.h"

#include <cstring>

#include "../engine/kernels.h"
#include "depthwise_conv33.h"

namespace corvina {
namespace {

constexpr int kWidth = kPitchWidth;

void AddInPlace(float* y, const float* x) {
  for (int c = 0; c < kWidth; ++c) y[c] = y[c] + x[c];
}

// Two branches, one on the spectral features and one on the lag features,
// summed into the frame's hidden vector (context->input_stage).
void InputStage(const PitchEstimatorBlock& model, PitchContext* context) {
  float* spectral = context->spectral_hidden;
  avx2::PanelProduct(model.spectral_in.weight, model.spectral_in.bias, context->front.spectral, spectral, kWidth,
                     kWidth);
  avx2::GeluInPlace(spectral, kWidth);
  avx2::PanelProduct(model.spectral_hidden.weight, model.spectral_hidden.bias, spectral, context->input_stage,
                     kWidth, kWidth);
  float* lag = context->lag_hidden;
  avx2::PanelProduct(model.lag_in, model.lag_in_bias, context->front.lag, lag, kWidth, kLags);
  avx2::GeluInPlace(lag, kWidth);
  avx2::PanelProduct(model.lag_hidden.weight, model.lag_hidden.bias, lag, context->lag_stage, kWidth, kWidth);
  AddInPlace(context->input_stage, context->lag_stage);
}

// y = bias + P0 h(two ago) + P1 h(one ago) + P2 h, accumulated in that order,
// then normalised with scale and shift.
void TemporalConv(const PitchEstimatorBlock& model, PitchContext* context) {
  constexpr std::size_t kPlane = kWidth * kWidth;
  float* y = context->conv_output;
  const float* h = context->input_stage;
  const int older = context->input_ring_index;
  for (int c = 0; c < kWidth; ++c) y[c] = HalfToFloat(model.temporal_conv_bias[c]);
  avx2::PanelAccumulate(model.temporal_conv, context->input_ring[older], y, kWidth, kWidth);
  avx2::PanelAccumulate(model.temporal_conv + kPlane, context->input_ring[1 - older], y, kWidth, kWidth);
  avx2::PanelAccumulate(model.temporal_conv + 2 * kPlane, h, y, kWidth, kWidth);
  std::memcpy(context->input_ring[older], h, sizeof context->input_ring[older]);
  context->input_ring_index = 1 - older;
  avx2::NormalizeScaleShift(y, model.input_norm_scale, model.input_norm_shift, kWidth);
}

// Depthwise mixing over 33 frames, normalisation, then a 192 -> 576 -> 192
// pointwise pair added back to the block input.
const float* Block(const PitchBlockWeights& weights, const float* x, PitchBlockState* state,
                   PitchBlockScratch* scratch) {
  avx2::DepthwiseConv33(weights, x, state, scratch->mixed);
  avx2::Normalize(scratch->mixed, kWidth);
  avx2::PanelProduct(weights.expand, weights.expand_bias, scratch->mixed, scratch->expanded, kPitchExpanded, kWidth);
  avx2::GeluInPlace(scratch->expanded, kPitchExpanded);
  avx2::PanelProduct(weights.project, weights.project_bias, scratch->expanded, scratch->output, kWidth,
                     kPitchExpanded);
  AddInPlace(scratch->output, x);
  return scratch->output;
}

}  // namespace

void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context) {
  InputStage(model, context);
  TemporalConv(model, context);
  const float* x = context->conv_output;
  for (int b = 0; b < kPitchBlocks; ++b) x = Block(model.blocks[b], x, &context->block_states[b], &context->blocks[b]);
  std::memcpy(context->output_norm, x, sizeof context->output_norm);
  avx2::NormalizeScaleShift(context->output_norm, model.output_norm_scale, model.output_norm_shift, kWidth);
  avx2::PanelProduct(model.head, model.head_bias, context->output_norm, context->scores, kPitchBins, kWidth);
}

}  // namespace corvina
