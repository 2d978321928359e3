// Helpers of the waveform generator's native tests: random halves and floats,
// owned engine blocks, and a randomly weighted model that keeps its
// activations of order one over long streams.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "test_support.h"
#include "waveform/waveform_layout.h"
#include "waveform/waveform_parameters.h"

namespace waveform_test {

using namespace corvina;
using namespace test_support;

template <int N, int K>
void RandomizeStackBlock(ResidualBlockWeights<N, K>* block, float gain, Rng& rng) {
  for (auto& conv : block->conv) {
    FillMatrix(conv.weight, K * N, gain, rng);
    FillHalves(conv.bias, N, 0.05f, rng);
  }
}

template <int N>
void RandomizeStack(ResidualStackWeights<N>* stack, float gain, Rng& rng) {
  RandomizeStackBlock(&stack->k3, gain, rng);
  RandomizeStackBlock(&stack->k7, gain, rng);
  RandomizeStackBlock(&stack->k11, gain, rng);
}

// A model with the creation tables and random weights whose gains keep every
// stage of order one (the recurrence contracts, phases still turn).
inline Block<WaveformGeneratorBlock> RandomModel(unsigned seed) {
  Rng rng(seed);
  Block<WaveformGeneratorBlock> model = NewBlock<WaveformGeneratorBlock>();
  WaveformGeneratorBlock& m = *model;
  StoreWaveformTables(&m);
  FillMatrix(m.phone_projection.weight, kChannels, 1.0f, rng);
  FillHalves(m.phone_projection.bias, kChannels, 0.05f, rng);
  FillHalves(&m.pitch_embedding[0][0], sizeof m.pitch_embedding / sizeof(f16), 0.8f, rng);
  FillMatrix(m.pitch_feature_projection, 4, 1.0f, rng);
  FillHalves(m.pitch_feature_bias, kChannels, 0.05f, rng);
  for (CausalConv7Weights* conv : {&m.pre_conv, &m.post_conv}) {
    FillMatrix(conv->weight, 7 * kChannels, 1.0f, rng);
    FillHalves(conv->bias, kChannels, 0.05f, rng);
  }
  for (f16* scale : {m.norm1_scale, m.norm2_scale})
    for (int c = 0; c < kChannels; ++c) scale[c] = ToHalf(1.0f + 0.1f * std::uniform_real_distribution<float>(-1, 1)(rng));
  FillHalves(m.norm1_shift, kChannels, 0.05f, rng);
  FillHalves(m.norm2_shift, kChannels, 0.05f, rng);
  for (auto& block : m.blocks) {
    FillMatrix(block.depthwise, 17, 1.0f, rng);
    FillHalves(block.depthwise_bias, kChannels, 0.05f, rng);
    FillMatrix(block.expand, kChannels, 1.0f, rng);
    FillHalves(block.expand_bias, kHiddenChannels, 0.05f, rng);
    FillMatrix(block.project, kHiddenChannels, 0.5f, rng);
    FillHalves(block.project_bias, kChannels, 0.05f, rng);
  }
  FillMatrix(m.upsample1, 2 * kChannels, 1.0f, rng);
  FillHalves(m.upsample1_bias, kStage1Channels, 0.05f, rng);
  FillMatrix(m.upsample2, 2 * kStage1Channels, 1.0f, rng);
  FillHalves(m.upsample2_bias, kStage2Channels, 0.05f, rng);
  RandomizeStack(&m.stack1, 0.8f, rng);
  RandomizeStack(&m.stack2, 0.8f, rng);
  FillHalves(&m.logmag_conv[0][0][0], sizeof m.logmag_conv / sizeof(f16), std::sqrt(3.0f / (7 * 64)), rng);
  for (f16& b : m.logmag_bias) b = ToHalf(-1.0f + 0.3f * std::uniform_real_distribution<float>(-1, 1)(rng));
  FillMatrix(m.phase_input, kStage2Channels, 3.0f, rng);
  FillHalves(m.phase_input_bias, 3 * kPhaseHidden, 0.05f, rng);
  FillMatrix(m.phase_recurrent, kPhaseHidden, 0.6f, rng);
  FillHalves(m.phase_recurrent_bias, 3 * kPhaseHidden, 0.05f, rng);
  FillHalves(&m.band_filter[0][0], kMergeTaps * kBands, 0.25f, rng);
  return model;
}

// One frame's inputs with the entry point's table of four references.
struct FrameInputs {
  alignas(64) float phone[kChannels];
  alignas(64) float pitch_features[CORVINA_PITCH_FEATURES];
  alignas(64) float speaker[kChannels];
  std::int32_t pitch_bin = 0;
  const void* table[4];

  FrameInputs() : table{speaker, pitch_features, &pitch_bin, phone} {}
  FrameInputs(const FrameInputs&) = delete;

  void Randomize(Rng& rng) {
    FillFloats(phone, kChannels, 1.0f, rng);
    FillFloats(pitch_features, CORVINA_PITCH_FEATURES, 1.0f, rng);
    FillFloats(speaker, kChannels, 0.5f, rng);
    pitch_bin = std::uniform_int_distribution<int>(0, CORVINA_PITCH_BINS - 1)(rng);
  }
};

}  // namespace waveform_test
