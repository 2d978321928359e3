// Half-precision storage. Weights stay binary16 in the model block and are
// widened as kernels use them; this scalar widening is exact and needs no
// F16C, so readers and tests can use it anywhere.
#pragma once
#include <cstdint>
#include <cstring>

namespace corvina {

using f16 = std::uint16_t;

inline float HalfToFloat(f16 h) {
  const std::uint32_t sign = static_cast<std::uint32_t>(h & 0x8000u) << 16;
  std::uint32_t exponent = (h >> 10) & 0x1Fu;
  std::uint32_t mantissa = h & 0x3FFu;
  std::uint32_t bits;
  if (exponent == 0x1F) {
    bits = sign | 0x7F800000u | (mantissa << 13);
  } else if (exponent != 0) {
    bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
  } else if (mantissa == 0) {
    bits = sign;
  } else {
    // Subnormal half: normalise into a single-precision normal.
    exponent = 113;
    while ((mantissa & 0x400u) == 0) {
      mantissa <<= 1;
      --exponent;
    }
    bits = sign | (exponent << 23) | ((mantissa & 0x3FFu) << 13);
  }
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

}  // namespace corvina
