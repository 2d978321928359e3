// The dilated causal convolution's definition: plain loops in the order of
// accumulation that fixes the result.
#include <cmath>
#include <cstring>

#include "dilated_causal_conv.h"

namespace corvina {
namespace scalar {

template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state) {
  constexpr int H = kDilatedHistory<K, D>;
  const int position = state->position;
  // Step j of the ring followed by the frame: oldest history step first.
  auto step = [&](int j) -> const float* {
    return j < H ? state->history[(position + j) % H] : input + (j - H) * N;
  };
  for (int t = 0; t < T; ++t)
    for (int o = 0; o < N; ++o) state->output[t][o] = HalfToFloat(weights.bias[o]);
  for (int k = 0; k < K; ++k) {
    const f16* tap = weights.weight + k * N * N;
    for (int t = 0; t < T; ++t) {
      const float* x = step(t + k * D);
      for (int o = 0; o < N; ++o) {
        const f16* w = tap + (o / kPanel) * N * kPanel + o % kPanel;
        float sum = state->output[t][o];
        for (int i = 0; i < N; ++i) sum = std::fma(HalfToFloat(w[i * kPanel]), x[i], sum);
        state->output[t][o] = sum;
      }
    }
  }
  RecordFrame(input, state);
}

CORVINA_INSTANTIATE_DILATED_CONVS

}  // namespace scalar
}  // namespace corvina
