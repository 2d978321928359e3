// Helpers every native test uses: seeded random halves and floats, bitwise
// comparison, and engine blocks owned by the test.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "engine/aligned_block.h"
#include "engine/half.h"

namespace test_support {

using namespace corvina;
using Rng = std::mt19937;

// Round-toward-zero float -> half inside the half range; tiny values become
// signed zero. Enough for random test weights.
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

// Uniform weights of standard deviation gain / sqrt(fan_in), which keeps
// activations of order one.
template <std::size_t Size>
void FillMatrix(f16 (&weights)[Size], int fan_in, float gain, Rng& rng) {
  FillHalves(weights, Size, gain * std::sqrt(3.0f / static_cast<float>(fan_in)), rng);
}

inline bool SameBits(const void* a, const void* b, std::size_t bytes) { return std::memcmp(a, b, bytes) == 0; }
inline bool SameFloats(const float* a, const float* b, std::size_t n) { return SameBits(a, b, n * sizeof(float)); }

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

}  // namespace test_support
