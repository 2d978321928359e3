// The kernels' definitions: one plain loop per layer shape, in the order of
// accumulation that fixes the result.
#include <cmath>
#include <cstring>

#include "activations_scalar.h"
#include "kernels.h"

namespace corvina {
namespace scalar {

void PanelAccumulate(const f16* weight, const float* x, float* y, int outputs, int inputs) {
  for (int o = 0; o < outputs; ++o) {
    const f16* panel = weight + static_cast<std::size_t>(o / kPanel) * inputs * kPanel + o % kPanel;
    float sum = y[o];
    for (int i = 0; i < inputs; ++i) sum = std::fma(HalfToFloat(panel[i * kPanel]), x[i], sum);
    y[o] = sum;
  }
}

void PanelProduct(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs) {
  for (int o = 0; o < outputs; ++o) y[o] = HalfToFloat(bias[o]);
  PanelAccumulate(weight, x, y, outputs, inputs);
}

void GeluInPlace(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = Gelu(x[i]);
}

void GeluInPlacePrefetching(float* x, int n, const f16*, std::size_t) { GeluInPlace(x, n); }

void PanelProductGelu(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs,
                      const f16*, std::size_t) {
  PanelProduct(weight, bias, x, y, outputs, inputs);
  GeluInPlace(y, outputs);
}

void SiluInPlace(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = Silu(x[i]);
}

void Normalize(float* x, int n) {
  float r, s;
  NormalizationCoefficients(x, n, &r, &s);
  for (int i = 0; i < n; ++i) x[i] = std::fma(x[i], r, s);
}

void NormalizeScaleShift(float* x, const f16* scale, const f16* shift, int n) {
  Normalize(x, n);
  for (int i = 0; i < n; ++i) x[i] = std::fma(x[i], HalfToFloat(scale[i]), HalfToFloat(shift[i]));
}

float* DenseLayer(const Dense256Weights& weights, const float* x, DenseSlot* slot) {
  PanelProduct(weights.weight, weights.bias, x, slot->output, kChannels, kChannels);
  return slot->output;
}

float* CausalConv7Layer(const CausalConv7Weights& weights, const float* x, CausalConv7Slot* slot) {
  constexpr int kPast = kCausalConvTaps - 1;
  constexpr std::size_t kTapSize = kChannels * kChannels;
  const int p = slot->position;
  for (int o = 0; o < kChannels; ++o) slot->output[o] = HalfToFloat(weights.bias[o]);
  // Tap 0 meets the frame of six calls ago, tap 5 the previous one, tap 6 x.
  for (int t = 0; t < kPast; ++t)
    PanelAccumulate(weights.weight + t * kTapSize, slot->history[(p + t) % kPast], slot->output, kChannels, kChannels);
  PanelAccumulate(weights.weight + kPast * kTapSize, x, slot->output, kChannels, kChannels);
  std::memcpy(slot->history[p], x, sizeof slot->history[p]);
  slot->position = (p + 1) % kPast;
  return slot->output;
}

void ResidualConvBlock(const ResidualConvBlockWeights& weights, const float* x, ResidualConvBlockSlot* slot) {
  constexpr int kPast = kResidualTaps - 1;
  const int p = slot->position;
  float* m = slot->mixed;
  for (int c = 0; c < kChannels; ++c) {
    float sum = HalfToFloat(weights.depthwise_bias[c]);
    for (int t = 0; t < kPast; ++t)
      sum = std::fma(HalfToFloat(weights.depthwise[t * kChannels + c]), slot->history[(p + t) % kPast][c], sum);
    m[c] = std::fma(HalfToFloat(weights.depthwise[kPast * kChannels + c]), x[c], sum);
  }
  std::memcpy(slot->history[p], x, sizeof slot->history[p]);
  slot->position = (p + 1) % kPast;
  Normalize(m, kChannels);
  PanelProduct(weights.expand, weights.expand_bias, m, slot->hidden, kHiddenChannels, kChannels);
  GeluInPlace(slot->hidden, kHiddenChannels);
  PanelProduct(weights.project, weights.project_bias, slot->hidden, slot->output, kChannels, kHiddenChannels);
  for (int c = 0; c < kChannels; ++c) slot->output[c] += x[c];
}

}  // namespace scalar
}  // namespace corvina
