// 16-lane half-precision loads and the width-generic operations on 512-bit
// vectors. Included only by files built with AVX-512 (*_avx512.cpp). The
// activations stay on 8 lanes (vector_math_avx2.h): the reciprocal estimate
// they use has no 512-bit form with the same table.
#pragma once
#include <immintrin.h>

#include "half.h"

namespace corvina {
namespace {  // internal linkage: these copies use 512-bit instructions

// The all-lanes zero-masking form is the plain conversion; unlike
// _mm512_cvtph_ps it does not trip GCC's uninitialised-value warning.
inline __m512 LoadHalf16(const f16* p) {
  return _mm512_maskz_cvtph_ps(static_cast<__mmask16>(0xFFFF), _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

struct Lanes16 {
  using V = __m512;
  static constexpr int kWidth = 16;
  static V Half(const f16* p) { return LoadHalf16(p); }
  static V Load(const float* p) { return _mm512_loadu_ps(p); }
  static void Store(float* p, V v) { _mm512_storeu_ps(p, v); }
  static V Splat(const float* p) { return _mm512_set1_ps(*p); }
  static V Zero() { return _mm512_setzero_ps(); }
  static V Fma(V a, V b, V c) { return _mm512_fmadd_ps(a, b, c); }
  static V Add(V a, V b) { return _mm512_add_ps(a, b); }
};

}  // namespace
}  // namespace corvina
