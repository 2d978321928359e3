// Scalar activations: the definitions that the vector kernels must match bit
// for bit. The reciprocal is the processor's estimate (rcpss), the same table
// the 8-lane rcpps uses, so scalar and vector agree on one machine.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <xmmintrin.h>

#include "exp_table.h"

namespace corvina {
namespace {  // internal linkage: never merged with vector-compiled copies

inline float ApproxReciprocal(float x) { return _mm_cvtss_f32(_mm_rcp_ss(_mm_set_ss(x))); }

inline float ExpTable(float v) {
  // Same operand order as minps/maxps, so a NaN input clamps the same way.
  v = v < kExpUpperClamp ? v : kExpUpperClamp;
  v = v > kExpLowerClamp ? v : kExpLowerClamp;
  const std::int32_t k = static_cast<std::int32_t>(std::nearbyint(v * kExpScale));
  float mantissa = g_exp_mantissa[k & kExpIndexMask];
  std::uint32_t bits;
  std::memcpy(&bits, &mantissa, sizeof bits);
  bits = (bits & 0x007FFFFFu) | ((static_cast<std::uint32_t>(k + kExpBias) << 13) & 0xFF800000u);
  float power;
  std::memcpy(&power, &bits, sizeof power);
  const float one_plus_r = std::fma(-static_cast<float>(k), kExpStep, v + 1.0f);
  return power * one_plus_r;
}

inline float Sigmoid(float x) { return ApproxReciprocal(1.0f + ExpTable(-x)); }

// tanh(a) = 2 / (1 + e^(-2a)) - 1, the 2 applied by one fused multiply-subtract.
inline float RecurrentTanh(float a) { return std::fma(2.0f, ApproxReciprocal(1.0f + ExpTable(a * -2.0f)), -1.0f); }

inline float Silu(float x) { return x * Sigmoid(x); }

// The gated recurrent update of `width` state values h from the input-side
// and state-side gate products gi and gh (three blocks of `width`: r, z, n):
//   r = Sigmoid(gi_r + gh_r), z = Sigmoid(gi_z + gh_z),
//   n = RecurrentTanh(fma(r, gh_n, gi_n)), h = fma(z, h, (1 - z) * n).
inline void GatedRecurrentUpdate(const float* gi, const float* gh, float* h, int width) {
  for (int c = 0; c < width; ++c) {
    const float r = Sigmoid(gi[c] + gh[c]);
    const float z = Sigmoid(gi[width + c] + gh[width + c]);
    const float n = RecurrentTanh(std::fma(r, gh[2 * width + c], gi[2 * width + c]));
    h[c] = std::fma(z, h[c], (1.0f - z) * n);
  }
}

// GELU, tanh form: a = h/2, u = (h + 0.044715 h^3) * 0.7978846, a tanh(u) + a.
inline float Gelu(float h) {
  const float a = 0.5f * h;
  const float cube_term = h * h * 0.044715f;
  const float u = std::fma(cube_term, h, h) * 0.7978846f;
  return std::fma(std::tanh(u), a, a);
}

}  // namespace
}  // namespace corvina
