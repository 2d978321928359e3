// The residual stacks' square causal convolution, N channels in and out,
// kernel K, dilation D, over the T steps of one frame, in three builds with
// identical results:
//   scalar::  the definition, plain loops in the order that fixes the result;
//   avx2::, avx512::  the engine's sweeps (engine/sweep.inc).
//
// Step t of tap k reads the input step (K - 1 - k) * D steps back, from the
// ring of the last H = (K - 1) * D steps when that lies in an earlier frame.
// Each output starts from its bias and accumulates with fused multiply-adds
// over tap 0 (oldest) to K - 1 (current), inputs ascending inside each tap.
// The input must not overlap the state. Afterwards the ring holds the last
// H steps seen, oldest at `position`.
//
// Instantiated for N = 128, T = 5 and N = 64, T = 15, K in {3, 7, 11},
// D in {1, 3, 5}.
#pragma once
#include <cstring>

#include "waveform_layout.h"

namespace corvina {

template <int K, int D>
constexpr int kDilatedHistory = (K - 1) * D;

// After a frame: only its last min(T, H) steps survive in the ring, which
// then starts T steps further on. Every build ends with this.
template <int N, int T, int H>
void RecordFrame(const float* input, DilatedCausalConvState<N, T, H>* state) {
  const int position = state->position;
  for (int t = T > H ? T - H : 0; t < T; ++t)
    std::memcpy(state->history[(position + t) % H], input + t * N, sizeof(float) * N);
  state->position = (position + T) % H;
}

namespace scalar {
template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state);
}
namespace avx2 {  // dilated_causal_conv_vector.inc
template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state);
}
namespace avx512 {
template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state);
}

// The instantiations that exist, one line per (N, T) pair.
#define CORVINA_FOR_EACH_DILATED_CONV(X, N, T) \
  X(N, T, 3, 1)                                \
  X(N, T, 3, 3)                                \
  X(N, T, 3, 5)                                \
  X(N, T, 7, 1)                                \
  X(N, T, 7, 3)                                \
  X(N, T, 7, 5)                                \
  X(N, T, 11, 1)                               \
  X(N, T, 11, 3)                               \
  X(N, T, 11, 5)

// Instantiates DilatedCausalConv for every shape, in the namespace where it stands.
#define CORVINA_DILATED_CONV_INSTANCE(N, T, K, D)                                               \
  template void DilatedCausalConv<N, T, K, D>(const DilatedConvWeights<N, K>&, const float*, \
                                              DilatedCausalConvState<N, T, kDilatedHistory<K, D>>*);
#define CORVINA_INSTANTIATE_DILATED_CONVS                                      \
  CORVINA_FOR_EACH_DILATED_CONV(CORVINA_DILATED_CONV_INSTANCE, 128, 5)         \
  CORVINA_FOR_EACH_DILATED_CONV(CORVINA_DILATED_CONV_INSTANCE, 64, 15)

}  // namespace corvina
