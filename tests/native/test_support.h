// Helpers every native test uses: the shared signal and random models
// (bench/speech_and_random_models.h), random bit patterns and floats, and
// bitwise comparison.
#pragma once
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "bench/speech_and_random_models.h"

namespace test_support {

using namespace corvina;
using namespace corvina::synthetic;

// Finite halves of random bit patterns, magnitudes below 2^(max_exponent - 14),
// subnormals included.
inline void RandomHalves(f16* out, std::size_t n, Rng& rng, int max_exponent) {
  std::uniform_int_distribution<int> exponent(0, max_exponent), mantissa(0, 1023), sign(0, 1);
  for (std::size_t i = 0; i < n; ++i)
    out[i] = static_cast<f16>((sign(rng) << 15) | (exponent(rng) << 10) | mantissa(rng));
}

inline void FillFloats(float* out, std::size_t n, float scale, Rng& rng) {
  std::uniform_real_distribution<float> u(-scale, scale);
  for (std::size_t i = 0; i < n; ++i) out[i] = u(rng);
}

inline std::vector<float> RandomFloats(std::size_t n, float scale, Rng& rng) {
  std::vector<float> v(n);
  FillFloats(v.data(), n, scale, rng);
  return v;
}

inline bool SameBits(const void* a, const void* b, std::size_t bytes) { return std::memcmp(a, b, bytes) == 0; }
inline bool SameFloats(const float* a, const float* b, std::size_t n) { return SameBits(a, b, n * sizeof(float)); }

}  // namespace test_support
