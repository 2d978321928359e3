// The inputs every native test and C++ benchmark runs on: a speech-like
// signal and the three models with seeded random weights whose activations
// stay of order one over long streams (no saturated gates, no dying state,
// pitch bins that move), so that a comparison of outputs proves something.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "engine/aligned_block.h"
#include "engine/corvina.h"
#include "engine/half.h"
#include "phone/phone_layout.h"
#include "pitch/pitch_layout.h"
#include "waveform/waveform_layout.h"
#include "waveform/waveform_parameters.h"

namespace corvina::synthetic {

using Rng = std::mt19937;

template <typename T>
struct BlockDeleter {
  void operator()(T* p) const { DeleteBlock(p); }
};
template <typename T>
using Block = std::unique_ptr<T, BlockDeleter<T>>;
template <typename T>
Block<T> NewBlock() {
  return Block<T>(NewZeroedBlock<T>());
}

// Round-toward-zero float -> half inside the half range; tiny values become
// signed zero. Enough for random weights.
inline f16 ToHalf(float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const std::uint32_t sign = (bits >> 16) & 0x8000u;
  const int exponent = static_cast<int>((bits >> 23) & 0xFF) - 127 + 15;
  if (exponent <= 0) return static_cast<f16>(sign);
  return static_cast<f16>(sign | (exponent << 10) | ((bits >> 13) & 0x3FFu));
}

// Uniform in [offset - scale, offset + scale].
inline void FillHalves(f16* out, std::size_t n, float scale, Rng& rng, float offset = 0.0f) {
  std::uniform_real_distribution<float> u(-scale, scale);
  for (std::size_t i = 0; i < n; ++i) out[i] = ToHalf(offset + u(rng));
}

template <std::size_t N>
void Fill(f16 (&out)[N], float scale, Rng& rng, float offset = 0.0f) {
  FillHalves(out, N, scale, rng, offset);
}

// Uniform weights of standard deviation gain / sqrt(fan_in).
template <std::size_t N>
void FillMatrix(f16 (&weights)[N], int fan_in, float gain, Rng& rng) {
  FillHalves(weights, N, gain * std::sqrt(3.0f / static_cast<float>(fan_in)), rng);
}

// A gliding voiced tone with a harmonic and noise, its level swelling, and
// exact silence for 6 frames of every 50.
inline std::vector<float> SpeechLikeSignal(int frames, unsigned seed) {
  constexpr int kHop = CORVINA_IN_HOP_LENGTH;
  std::vector<float> x(static_cast<std::size_t>(frames) * kHop, 0.0f);
  Rng rng(seed);
  std::normal_distribution<float> noise(0.0f, 0.02f);
  double phase = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    const int frame = static_cast<int>(i / kHop);
    phase += 2.0 * 3.14159265358979 * (110.0 + 90.0 * std::sin(static_cast<double>(i) * 3e-5)) / 16000.0;
    if (frame % 50 >= 44) continue;
    const float level = 0.3f * (0.6f + 0.4f * std::sin(0.21f * static_cast<float>(frame)));
    x[i] = level * static_cast<float>(std::sin(phase) + 0.5 * std::sin(3.0 * phase)) + noise(rng);
  }
  return x;
}

template <int C, int H, int T>
void FillResidualBlock(ResidualConvWeights<C, H, T>& b, float bias, Rng& rng) {
  FillMatrix(b.depthwise, T, 1.0f, rng);
  Fill(b.depthwise_bias, bias, rng);
  FillMatrix(b.expand, C, 1.0f, rng);
  Fill(b.expand_bias, bias, rng);
  FillMatrix(b.project, H, 0.7f, rng);
  Fill(b.project_bias, bias, rng);
}

inline Block<PhoneExtractorBlock> RandomPhoneModel(unsigned seed) {
  Rng rng(seed);
  auto m = NewBlock<PhoneExtractorBlock>();
  FillMatrix(m->conv1, 10, 6.0f, rng);
  FillMatrix(m->conv2, 32 * 3, 2.0f, rng);
  FillMatrix(m->conv3, 64 * 3, 2.0f, rng);
  FillMatrix(m->conv4, 128 * 3, 2.0f, rng);
  FillMatrix(m->conv5, 256 * 3, 2.0f, rng);
  FillMatrix(m->conv6, 256 * 2, 2.0f, rng);
  for (Dense256Weights* d : {&m->input_dense, &m->output_dense}) {
    FillMatrix(d->weight, 256, 1.0f, rng);
    Fill(d->bias, 0.17f, rng);
  }
  for (auto& layer : m->recurrent) {
    FillMatrix(layer.input_side.weight, 256, 1.0f, rng);
    Fill(layer.input_side.bias, 0.17f, rng);
    FillMatrix(layer.state_side.weight, 256, 0.9f, rng);
    Fill(layer.state_side.bias, 0.17f, rng);
  }
  FillMatrix(m->causal_conv.weight, 256 * 7, 1.0f, rng);
  Fill(m->causal_conv.bias, 0.17f, rng);
  Fill(m->causal_norm_scale, 0.17f, rng, 1.0f);
  Fill(m->causal_norm_shift, 0.17f, rng);
  for (auto& b : m->blocks) FillResidualBlock(b, 0.17f, rng);
  Fill(m->final_norm_scale, 0.17f, rng, 1.0f);
  Fill(m->final_norm_shift, 0.17f, rng);
  return m;
}

inline Block<PitchEstimatorBlock> RandomPitchModel(unsigned seed) {
  Rng rng(seed);
  auto m = NewBlock<PitchEstimatorBlock>();
  for (Dense192Weights* d : {&m->spectral_in, &m->spectral_hidden, &m->lag_hidden}) {
    FillMatrix(d->weight, kPitchWidth, 1.0f, rng);
    Fill(d->bias, 0.1f, rng);
  }
  FillMatrix(m->lag_in, kLags, 1.0f, rng);
  Fill(m->lag_in_bias, 0.1f, rng);
  FillMatrix(m->temporal_conv, 3 * kPitchWidth, 1.0f, rng);
  Fill(m->temporal_conv_bias, 0.1f, rng);
  Fill(m->input_norm_scale, 0.2f, rng, 1.0f);
  Fill(m->input_norm_shift, 0.1f, rng);
  for (auto& b : m->blocks) FillResidualBlock(b, 0.1f, rng);
  Fill(m->output_norm_scale, 0.2f, rng, 1.0f);
  Fill(m->output_norm_shift, 0.1f, rng);
  FillMatrix(m->head, kPitchWidth, 3.0f, rng);
  Fill(m->head_bias, 0.1f, rng);
  return m;
}

template <int N, int K>
void FillStackBlock(ResidualBlockWeights<N, K>* block, Rng& rng) {
  for (auto& conv : block->conv) {
    FillMatrix(conv.weight, K * N, 0.8f, rng);
    Fill(conv.bias, 0.05f, rng);
  }
}

template <int N>
void FillStack(ResidualStackWeights<N>* stack, Rng& rng) {
  FillStackBlock(&stack->k3, rng);
  FillStackBlock(&stack->k7, rng);
  FillStackBlock(&stack->k11, rng);
}

// With the creation tables; the recurrence contracts and the phases still turn.
inline Block<WaveformGeneratorBlock> RandomWaveformModel(unsigned seed) {
  Rng rng(seed);
  auto model = NewBlock<WaveformGeneratorBlock>();
  WaveformGeneratorBlock& m = *model;
  StoreWaveformTables(&m);
  FillMatrix(m.phone_projection.weight, kChannels, 1.0f, rng);
  Fill(m.phone_projection.bias, 0.05f, rng);
  FillHalves(&m.pitch_embedding[0][0], sizeof m.pitch_embedding / sizeof(f16), 0.8f, rng);
  FillMatrix(m.pitch_feature_projection, 4, 1.0f, rng);
  Fill(m.pitch_feature_bias, 0.05f, rng);
  for (CausalConv7Weights* conv : {&m.pre_conv, &m.post_conv}) {
    FillMatrix(conv->weight, 7 * kChannels, 1.0f, rng);
    Fill(conv->bias, 0.05f, rng);
  }
  Fill(m.norm1_scale, 0.1f, rng, 1.0f);
  Fill(m.norm2_scale, 0.1f, rng, 1.0f);
  Fill(m.norm1_shift, 0.05f, rng);
  Fill(m.norm2_shift, 0.05f, rng);
  for (auto& block : m.blocks) FillResidualBlock(block, 0.05f, rng);
  FillMatrix(m.upsample1, 2 * kChannels, 1.0f, rng);
  Fill(m.upsample1_bias, 0.05f, rng);
  FillMatrix(m.upsample2, 2 * kStage1Channels, 1.0f, rng);
  Fill(m.upsample2_bias, 0.05f, rng);
  FillStack(&m.stack1, rng);
  FillStack(&m.stack2, rng);
  FillHalves(&m.logmag_conv[0][0][0], sizeof m.logmag_conv / sizeof(f16), std::sqrt(3.0f / (7 * 64)), rng);
  Fill(m.logmag_bias, 0.3f, rng, -1.0f);
  FillMatrix(m.phase_input, kStage2Channels, 3.0f, rng);
  Fill(m.phase_input_bias, 0.05f, rng);
  FillMatrix(m.phase_recurrent, kPhaseHidden, 0.6f, rng);
  Fill(m.phase_recurrent_bias, 0.05f, rng);
  FillHalves(&m.band_filter[0][0], kMergeTaps * kBands, 0.25f, rng);
  return model;
}

}  // namespace corvina::synthetic
