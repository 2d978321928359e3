// 8-lane activations, half-precision loads and the library's tanh. Included only by files built
// for AVX2/FMA/F16C; each helper matches its scalar twin in
// activations_scalar.h bit for bit.
#pragma once
#include <immintrin.h>

#include <cstdint>

#include "exp_table.h"
#include "half.h"
#include "vector_tanh.h"

namespace corvina {
namespace {  // internal linkage: these copies use vector instructions

inline __m256 LoadHalf8(const f16* p) {
  return _mm256_cvtph_ps(_mm_load_si128(reinterpret_cast<const __m128i*>(p)));
}

inline __m256 LoadHalf8Unaligned(const f16* p) {
  return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

inline __m256 ExpTable8(__m256 v) {
  v = _mm256_min_ps(v, _mm256_set1_ps(kExpUpperClamp));
  v = _mm256_max_ps(v, _mm256_set1_ps(kExpLowerClamp));
  const __m256i k = _mm256_cvtps_epi32(_mm256_mul_ps(v, _mm256_set1_ps(kExpScale)));
  const __m256 mantissa =
      _mm256_i32gather_ps(g_exp_mantissa, _mm256_and_si256(k, _mm256_set1_epi32(kExpIndexMask)), 4);
  const __m256i exponent = _mm256_and_si256(_mm256_slli_epi32(_mm256_add_epi32(k, _mm256_set1_epi32(kExpBias)), 13),
                                            _mm256_set1_epi32(static_cast<int>(0xFF800000u)));
  const __m256i bits = _mm256_or_si256(
      _mm256_and_si256(_mm256_castps_si256(mantissa), _mm256_set1_epi32(0x007FFFFF)), exponent);
  const __m256 one_plus_r = _mm256_fnmadd_ps(_mm256_cvtepi32_ps(k), _mm256_set1_ps(kExpStep),
                                             _mm256_add_ps(v, _mm256_set1_ps(1.0f)));
  return _mm256_mul_ps(_mm256_castsi256_ps(bits), one_plus_r);
}

inline __m256 Sigmoid8(__m256 x) {
  const __m256 negated = _mm256_xor_ps(x, _mm256_set1_ps(-0.0f));
  return _mm256_rcp_ps(_mm256_add_ps(_mm256_set1_ps(1.0f), ExpTable8(negated)));
}

inline __m256 RecurrentTanh8(__m256 a) {
  const __m256 e = ExpTable8(_mm256_mul_ps(a, _mm256_set1_ps(-2.0f)));
  return _mm256_fmsub_ps(_mm256_set1_ps(2.0f), _mm256_rcp_ps(_mm256_add_ps(_mm256_set1_ps(1.0f), e)),
                         _mm256_set1_ps(1.0f));
}

inline __m256 Silu8(__m256 x) { return _mm256_mul_ps(x, Sigmoid8(x)); }

// GatedRecurrentUpdate (activations_scalar.h) on 8 lanes; width a multiple
// of 8, every array 32-byte aligned.
inline void GatedRecurrentUpdate8(const float* gi, const float* gh, float* h, int width) {
  for (int c = 0; c < width; c += 8) {
    const __m256 r = Sigmoid8(_mm256_add_ps(_mm256_load_ps(gi + c), _mm256_load_ps(gh + c)));
    const __m256 z = Sigmoid8(_mm256_add_ps(_mm256_load_ps(gi + width + c), _mm256_load_ps(gh + width + c)));
    const __m256 n =
        RecurrentTanh8(_mm256_fmadd_ps(r, _mm256_load_ps(gh + 2 * width + c), _mm256_load_ps(gi + 2 * width + c)));
    const __m256 keep = _mm256_mul_ps(_mm256_sub_ps(_mm256_set1_ps(1.0f), z), n);
    _mm256_store_ps(h + c, _mm256_fmadd_ps(z, _mm256_load_ps(h + c), keep));
  }
}

// The operations the width-generic kernels (sweep.inc, vector_kernels.inc) need, on 8 lanes.
struct Lanes8 {
  using V = __m256;
  static constexpr int kWidth = 8;
  static V Half(const f16* p) { return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
  static V Load(const float* p) { return _mm256_loadu_ps(p); }
  static void Store(float* p, V v) { _mm256_storeu_ps(p, v); }
  static V Splat(const float* p) { return _mm256_broadcast_ss(p); }
  static V Zero() { return _mm256_setzero_ps(); }
  static V Fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
  static V Add(V a, V b) { return _mm256_add_ps(a, b); }
  static V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
  static V Set(float v) { return _mm256_set1_ps(v); }
  static V Tanh(V v);  // the library's, below
  static void Tanh2(V u0, V u1, V* t0, V* t1);  // the same on two vectors side by side
};

}  // namespace
}  // namespace corvina

// The operations of the library's tanh (vector_tanh.h) on eight lanes, lane
// masks as all-ones lanes.
namespace corvina {
namespace {

struct TanhOps8 {
  using V = __m256;
  using I = __m256i;
  using M = __m256;
  static V Bits(std::uint32_t bits) { return _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(bits))); }
  static V F(float v) { return _mm256_set1_ps(v); }
  static I Int(std::int32_t v) { return _mm256_set1_epi32(v); }
  static V AsFloat(I v) { return _mm256_castsi256_ps(v); }
  static I AsInt(V v) { return _mm256_castps_si256(v); }
  static V Add(V a, V b) { return _mm256_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm256_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm256_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm256_div_ps(a, b); }
  static V Xor(V a, V b) { return _mm256_xor_ps(a, b); }
  static I AndI(I a, I b) { return _mm256_and_si256(a, b); }
  static I SubI(I a, I b) { return _mm256_sub_epi32(a, b); }
  static I ShiftLeft23(I v) { return _mm256_slli_epi32(v, 23); }
  static I ShiftRight(I v, I count) { return _mm256_srlv_epi32(v, count); }
  static I Truncate(V v) { return _mm256_cvttps_epi32(v); }
  static V ToFloat(I v) { return _mm256_cvtepi32_ps(v); }
  // Adds k to the exponent field of y (as an integer add on the bits).
  static V AddExponent(V y, I k) { return AsFloat(_mm256_add_epi32(AsInt(y), ShiftLeft23(k))); }
  static M Negative(V a) { return _mm256_cmp_ps(a, _mm256_setzero_ps(), _CMP_LT_OQ); }
  static M Greater(I a, I b) { return AsFloat(_mm256_cmpgt_epi32(a, b)); }
  static M Equal(I a, I b) { return AsFloat(_mm256_cmpeq_epi32(a, b)); }
  static M And(M a, M b) { return _mm256_and_ps(a, b); }
  static M Or(M a, M b) { return _mm256_or_ps(a, b); }
  static bool Any(M m) { return _mm256_movemask_ps(m) != 0; }
  static V Select(V when_false, V when_true, M mask) { return _mm256_blendv_ps(when_false, when_true, mask); }
  static I SelectInt(I when_false, I when_true, M mask) {
    return AsInt(_mm256_blendv_ps(AsFloat(when_false), AsFloat(when_true), mask));
  }
  static I Keep(M mask, I v) { return _mm256_and_si256(v, AsInt(mask)); }
};

inline __m256 Lanes8::Tanh(__m256 v) { return LibraryTanh<TanhOps8>(v); }
inline void Lanes8::Tanh2(__m256 u0, __m256 u1, __m256* t0, __m256* t1) {
  const auto t = LibraryTanh<PairOps<TanhOps8>>({u0, u1});
  *t0 = t.a;
  *t1 = t.b;
}

}  // namespace
}  // namespace corvina
