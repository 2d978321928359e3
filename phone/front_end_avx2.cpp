// Front-end convolutions with 256-bit vectors, in the definition's order per
// output (front_end_scalar.cpp). The strided layers compute two output
// positions per pass over a panel's weights, so each weight run is loaded and
// widened once for both.
#include <cstring>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"

namespace corvina {
namespace avx2 {

void InputConvProducts(const f16* weight, const float* x, float* kept, float* output) {
  for (int p = 0; p < kInputConvPositions; ++p) {
    __m256 acc0 = _mm256_setzero_ps(), acc1 = _mm256_setzero_ps();
    __m256 acc2 = _mm256_setzero_ps(), acc3 = _mm256_setzero_ps();
    for (int t = 0; t < kInputConvTaps; ++t) {
      const int k = kInputConvStride * p - kKeptSamples + t;
      const __m256 sample = _mm256_broadcast_ss(k < 0 ? kept + k + kKeptSamples : x + k);
      const f16* w = weight + t * kInputConvChannels;
      acc0 = _mm256_fmadd_ps(LoadHalf8(w), sample, acc0);
      acc1 = _mm256_fmadd_ps(LoadHalf8(w + 8), sample, acc1);
      acc2 = _mm256_fmadd_ps(LoadHalf8(w + 16), sample, acc2);
      acc3 = _mm256_fmadd_ps(LoadHalf8(w + 24), sample, acc3);
    }
    float* out = output + p * kInputConvChannels;
    _mm256_storeu_ps(out, acc0);
    _mm256_storeu_ps(out + 8, acc1);
    _mm256_storeu_ps(out + 16, acc2);
    _mm256_storeu_ps(out + 24, acc3);
  }
  std::memcpy(kept, x + kPhoneHop - kKeptSamples, kKeptSamples * sizeof(float));
}

void InputConvLayer(const f16* weight, const float* x, float* kept, float* output) {
  InputConvProducts(weight, x, kept, output);
  GeluInPlace(output, kInputConvPositions * kInputConvChannels);
}

namespace {

// One 32-output panel of `Positions` output positions: out[p] = sum over taps
// t and inputs i of W_t[panel][i] * rows[p][t][i], from zero.
template <int Positions, int Taps>
void ConvPanel(const f16* panel, std::size_t tap_size, const float* const (&rows)[Positions][Taps], int inputs,
               float* const (&out)[Positions]) {
  __m256 acc[Positions][4];
  for (int p = 0; p < Positions; ++p)
    for (int k = 0; k < 4; ++k) acc[p][k] = _mm256_setzero_ps();
  for (int t = 0; t < Taps; ++t) {
    const f16* w = panel + t * tap_size;
    for (int i = 0; i < inputs; ++i, w += kPanel) {
      const __m256 w0 = LoadHalf8(w), w1 = LoadHalf8(w + 8), w2 = LoadHalf8(w + 16), w3 = LoadHalf8(w + 24);
      for (int p = 0; p < Positions; ++p) {
        const __m256 xi = _mm256_broadcast_ss(rows[p][t] + i);
        acc[p][0] = _mm256_fmadd_ps(w0, xi, acc[p][0]);
        acc[p][1] = _mm256_fmadd_ps(w1, xi, acc[p][1]);
        acc[p][2] = _mm256_fmadd_ps(w2, xi, acc[p][2]);
        acc[p][3] = _mm256_fmadd_ps(w3, xi, acc[p][3]);
      }
    }
  }
  for (int p = 0; p < Positions; ++p)
    for (int k = 0; k < 4; ++k) _mm256_storeu_ps(out[p] + 8 * k, acc[p][k]);
}

}  // namespace

void StridedConvLayer(const f16* weight, const float* input, float* previous, float* output, int inputs,
                      int outputs, int out_positions) {
  const std::size_t tap_size = static_cast<std::size_t>(inputs) * outputs;
  const auto row = [&](int position) {
    return position < 0 ? previous : input + static_cast<std::size_t>(position) * inputs;
  };
  for (int panel = 0; panel < outputs / kPanel; ++panel) {
    const f16* w = weight + static_cast<std::size_t>(panel) * inputs * kPanel;
    for (int j = 0; j < out_positions; j += 2) {
      const float* const rows[2][3] = {{row(2 * j - 1), row(2 * j), row(2 * j + 1)},
                                       {row(2 * j + 1), row(2 * j + 2), row(2 * j + 3)}};
      float* const out[2] = {output + static_cast<std::size_t>(j) * outputs + panel * kPanel,
                             output + static_cast<std::size_t>(j + 1) * outputs + panel * kPanel};
      ConvPanel<2, 3>(w, tap_size, rows, inputs, out);
    }
  }
  std::memcpy(previous, row(2 * out_positions - 1), inputs * sizeof(float));
  GeluInPlace(output, out_positions * outputs);
}

void PairConvLayer(const f16* weight, const float* input, float* output) {
  constexpr std::size_t kTapSize = kChannels * kChannels;
  const float* const rows[1][2] = {{input, input + kChannels}};
  for (int panel = 0; panel < kChannels / kPanel; ++panel) {
    float* const out[1] = {output + panel * kPanel};
    ConvPanel<1, 2>(weight + static_cast<std::size_t>(panel) * kChannels * kPanel, kTapSize, rows, kChannels, out);
  }
  GeluInPlace(output, kChannels);
}

}  // namespace avx2
}  // namespace corvina
