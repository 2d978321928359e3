// The shared kernels with 256-bit vectors. Each output keeps the scalar
// definition's order of accumulation, so results match kernels_scalar.cpp
// bit for bit.
#include <cmath>
#include <cstring>

#include "kernels.h"
#include "vector_math_avx2.h"

namespace corvina {
namespace avx2 {

void PanelAccumulate(const f16* weight, const float* x, float* y, int outputs, int inputs) {
  for (int panel = 0; panel < outputs / kPanel; ++panel) {
    const f16* w = weight + static_cast<std::size_t>(panel) * inputs * kPanel;
    float* out = y + panel * kPanel;
    __m256 acc0 = _mm256_loadu_ps(out), acc1 = _mm256_loadu_ps(out + 8);
    __m256 acc2 = _mm256_loadu_ps(out + 16), acc3 = _mm256_loadu_ps(out + 24);
    for (int i = 0; i < inputs; ++i, w += kPanel) {
      const __m256 xi = _mm256_broadcast_ss(x + i);
      acc0 = _mm256_fmadd_ps(LoadHalf8(w), xi, acc0);
      acc1 = _mm256_fmadd_ps(LoadHalf8(w + 8), xi, acc1);
      acc2 = _mm256_fmadd_ps(LoadHalf8(w + 16), xi, acc2);
      acc3 = _mm256_fmadd_ps(LoadHalf8(w + 24), xi, acc3);
    }
    _mm256_storeu_ps(out, acc0);
    _mm256_storeu_ps(out + 8, acc1);
    _mm256_storeu_ps(out + 16, acc2);
    _mm256_storeu_ps(out + 24, acc3);
  }
}

void PanelProduct(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs) {
  for (int o = 0; o < outputs; o += 8) _mm256_storeu_ps(y + o, LoadHalf8Unaligned(bias + o));
  PanelAccumulate(weight, x, y, outputs, inputs);
}

void GeluInPlace(float* x, int n) {
  // The library tanh is called per value, as in the definition.
  for (int i = 0; i < n; i += 8) {
    const __m256 h = _mm256_loadu_ps(x + i);
    const __m256 a = _mm256_mul_ps(_mm256_set1_ps(0.5f), h);
    const __m256 cube_term = _mm256_mul_ps(_mm256_mul_ps(h, h), _mm256_set1_ps(0.044715f));
    const __m256 u = _mm256_mul_ps(_mm256_fmadd_ps(cube_term, h, h), _mm256_set1_ps(0.7978846f));
    alignas(32) float t[8];
    _mm256_store_ps(t, u);
    for (float& v : t) v = std::tanh(v);
    _mm256_storeu_ps(x + i, _mm256_fmadd_ps(_mm256_load_ps(t), a, a));
  }
}

void GeluInPlacePrefetching(float* x, int n, const f16*, std::size_t) { GeluInPlace(x, n); }

void PanelProductGelu(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs,
                      const f16*, std::size_t) {
  PanelProduct(weight, bias, x, y, outputs, inputs);
  GeluInPlace(y, outputs);
}

void SiluInPlace(float* x, int n) {
  for (int i = 0; i < n; i += 8) _mm256_storeu_ps(x + i, Silu8(_mm256_loadu_ps(x + i)));
}

void Normalize(float* x, int n) {
  float r, s;
  NormalizationCoefficients(x, n, &r, &s);
  const __m256 rv = _mm256_set1_ps(r), sv = _mm256_set1_ps(s);
  for (int i = 0; i < n; i += 8) _mm256_storeu_ps(x + i, _mm256_fmadd_ps(_mm256_loadu_ps(x + i), rv, sv));
}

void NormalizeScaleShift(float* x, const f16* scale, const f16* shift, int n) {
  float r, s;
  NormalizationCoefficients(x, n, &r, &s);
  const __m256 rv = _mm256_set1_ps(r), sv = _mm256_set1_ps(s);
  for (int i = 0; i < n; i += 8) {
    const __m256 normalised = _mm256_fmadd_ps(_mm256_loadu_ps(x + i), rv, sv);
    _mm256_storeu_ps(x + i,
                     _mm256_fmadd_ps(normalised, LoadHalf8Unaligned(scale + i), LoadHalf8Unaligned(shift + i)));
  }
}

float* DenseLayer(const Dense256Weights& weights, const float* x, DenseSlot* slot) {
  PanelProduct(weights.weight, weights.bias, x, slot->output, kChannels, kChannels);
  return slot->output;
}

float* CausalConv7Layer(const CausalConv7Weights& weights, const float* x, CausalConv7Slot* slot) {
  constexpr int kPast = kCausalConvTaps - 1;
  constexpr std::size_t kTapSize = kChannels * kChannels;
  const int p = slot->position;
  for (int o = 0; o < kChannels; o += 8) _mm256_store_ps(slot->output + o, LoadHalf8(weights.bias + o));
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
  for (int c = 0; c < kChannels; c += 8) {
    __m256 sum = LoadHalf8(weights.depthwise_bias + c);
    for (int t = 0; t < kPast; ++t)
      sum = _mm256_fmadd_ps(LoadHalf8(weights.depthwise + t * kChannels + c),
                            _mm256_load_ps(slot->history[(p + t) % kPast] + c), sum);
    sum = _mm256_fmadd_ps(LoadHalf8(weights.depthwise + kPast * kChannels + c), _mm256_loadu_ps(x + c), sum);
    _mm256_store_ps(slot->mixed + c, sum);
  }
  std::memcpy(slot->history[p], x, sizeof slot->history[p]);
  slot->position = (p + 1) % kPast;
  Normalize(slot->mixed, kChannels);
  PanelProduct(weights.expand, weights.expand_bias, slot->mixed, slot->hidden, kHiddenChannels, kChannels);
  GeluInPlace(slot->hidden, kHiddenChannels);
  PanelProduct(weights.project, weights.project_bias, slot->hidden, slot->output, kChannels, kHiddenChannels);
  for (int c = 0; c < kChannels; c += 8)
    _mm256_store_ps(slot->output + c, _mm256_add_ps(_mm256_load_ps(slot->output + c), _mm256_loadu_ps(x + c)));
}

}  // namespace avx2
}  // namespace corvina
