// The dilated causal convolution with 256-bit vectors. Each output keeps the
// scalar definition's order (bias, then taps ascending, inputs ascending), so
// results match dilated_causal_conv_scalar.cpp bit for bit.
//
// Work is cut into 16 outputs (half a panel) by 5 steps: ten accumulators
// stay in registers over all taps and inputs, and every pair of widened
// weight vectors serves five steps.
#include <cstring>

#include "../engine/vector_math_avx2.h"
#include "dilated_causal_conv.h"

namespace corvina {
namespace avx2 {

template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state) {
  constexpr int H = kDilatedHistory<K, D>;
  constexpr int kSteps = 5;
  constexpr int kHalf = kPanel / 2;
  static_assert(T % kSteps == 0 && N % kPanel == 0, "whole step groups and panels");
  const int position = state->position;
  // Step j of the ring followed by the frame: oldest history step first.
  const float* steps[H + T];
  for (int j = 0; j < H; ++j) steps[j] = state->history[(position + j) % H];
  for (int j = 0; j < T; ++j) steps[H + j] = input + j * N;

  for (int half = 0; half < N / kHalf; ++half) {
    const int panel = half / 2;
    const __m256 bias0 = LoadHalf8(weights.bias + half * kHalf);
    const __m256 bias1 = LoadHalf8(weights.bias + half * kHalf + 8);
    for (int t0 = 0; t0 < T; t0 += kSteps) {
      __m256 acc[kSteps][2];
      for (int g = 0; g < kSteps; ++g) {
        acc[g][0] = bias0;
        acc[g][1] = bias1;
      }
      for (int k = 0; k < K; ++k) {
        const f16* w = weights.weight + k * N * N + panel * N * kPanel + (half % 2) * kHalf;
        const float* x[kSteps];
        for (int g = 0; g < kSteps; ++g) x[g] = steps[t0 + g + k * D];
        for (int i = 0; i < N; ++i, w += kPanel) {
          const __m256 w0 = LoadHalf8(w), w1 = LoadHalf8(w + 8);
          for (int g = 0; g < kSteps; ++g) {
            const __m256 xi = _mm256_broadcast_ss(x[g] + i);
            acc[g][0] = _mm256_fmadd_ps(w0, xi, acc[g][0]);
            acc[g][1] = _mm256_fmadd_ps(w1, xi, acc[g][1]);
          }
        }
      }
      for (int g = 0; g < kSteps; ++g) {
        float* out = state->output[t0 + g] + half * kHalf;
        _mm256_store_ps(out, acc[g][0]);
        _mm256_store_ps(out + 8, acc[g][1]);
      }
    }
  }
  RecordFrame(input, state);
}

CORVINA_INSTANTIATE_DILATED_CONVS

}  // namespace avx2
}  // namespace corvina
