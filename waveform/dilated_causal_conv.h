// The residual stacks' square causal convolution, N channels in and out,
// kernel K, dilation D, over the T steps of one frame, in three builds with
// identical results:
//   scalar::  the definition, plain loops in the order that fixes the result
//             (engine/isa_scalar.cpp);
//   avx2::, avx512::  the engine's sweeps (dilated_causal_conv_vector.inc).
//
// Step t of tap k reads the input step (K - 1 - k) * D steps back, from the
// ring of the last H = (K - 1) * D steps when that lies in an earlier frame.
// Each output starts from its bias and accumulates with fused multiply-adds
// over tap 0 (oldest) to K - 1 (current), inputs ascending inside each tap.
// The input must not overlap the state. Afterwards the ring holds the last
// H steps seen, oldest at `position`.
//
// Used for N = 128, T = 5 and N = 64, T = 15, K in {3, 7, 11}, D in {1, 3, 5}
// (waveform/residual_stack.inc).
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

}  // namespace corvina
