// 8-lane activations, half-precision loads and the library's tanh. Included only by files built
// for AVX2/FMA/F16C; each helper matches its scalar twin in
// activations_scalar.h bit for bit.
#pragma once
#include <immintrin.h>

#include <cstdint>

#include "exp_table.h"
#include "half.h"

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

// The operations the width-generic kernels (fast_kernels.inc) need, on 8 lanes.
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
};

}  // namespace
}  // namespace corvina

// The C library's single-precision tanh, eight values at a time, bit for bit.
// The library computes tanh(x) from expm1(2|x|) (|x| >= 1) or expm1(-2|x|)
// with a reduction by ln 2 and a rational approximation, in single precision
// without fused multiply-adds; the same operations in the same order on
// vectors give the same roundings, so every result equals the library call.
// kernel_set.cpp confirms this against the library when it loads (and the
// fast sets fall back to the library call where it differs).
namespace corvina {
namespace tanh_avx2 {

inline __m256 Bits(std::uint32_t bits) { return _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(bits))); }
inline __m256 F(float v) { return _mm256_set1_ps(v); }
inline __m256 Select(__m256 when_false, __m256 when_true, __m256 mask) {
  return _mm256_blendv_ps(when_false, when_true, mask);
}
inline __m256 IntMask(__m256i mask) { return _mm256_castsi256_ps(mask); }
// Adds k to the exponent field of y (as an integer add on the bits).
inline __m256 AddExponent(__m256 y, __m256i k) {
  return _mm256_castsi256_ps(_mm256_add_epi32(_mm256_castps_si256(y), _mm256_slli_epi32(k, 23)));
}

// expm1 for the arguments tanh passes: a in [2, 44) or a in (-2, -2^-54].
inline __m256 Expm1(__m256 a) {
  const __m256 ln2_hi = Bits(0x3f317180), ln2_lo = Bits(0x3717f7d1), invln2 = Bits(0x3fb8aa3b);
  const __m256i habs = _mm256_and_si256(_mm256_castps_si256(a), _mm256_set1_epi32(0x7fffffff));
  const __m256 negative = _mm256_cmp_ps(a, _mm256_setzero_ps(), _CMP_LT_OQ);
  const __m256i abs_gt_half_ln2 = _mm256_cmpgt_epi32(habs, _mm256_set1_epi32(0x3eb17218));
  const __m256i abs_lt_3_half_ln2 = _mm256_cmpgt_epi32(_mm256_set1_epi32(0x3F851592), habs);
  const __m256i tiny = _mm256_cmpgt_epi32(_mm256_set1_epi32(0x33000000), habs);

  // |a| in (ln2/2, 3 ln2/2): k = -1 (only negative a come here); beyond: k rounded.
  const __m256 k_general_f = _mm256_add_ps(_mm256_mul_ps(invln2, a), Select(F(0.5f), F(-0.5f), negative));
  __m256i k_general = _mm256_cvttps_epi32(k_general_f);
  const __m256 t_general = _mm256_cvtepi32_ps(k_general);
  const __m256 hi_general = _mm256_sub_ps(a, _mm256_mul_ps(t_general, ln2_hi));
  const __m256 lo_general = _mm256_mul_ps(t_general, ln2_lo);
  const __m256 near = IntMask(_mm256_and_si256(abs_gt_half_ln2, abs_lt_3_half_ln2));
  const __m256 hi_near = Select(_mm256_sub_ps(a, ln2_hi), _mm256_add_ps(a, ln2_hi), negative);
  const __m256 lo_near = Select(ln2_lo, _mm256_xor_ps(ln2_lo, F(-0.0f)), negative);
  const __m256i k_near = _mm256_castps_si256(Select(_mm256_castsi256_ps(_mm256_set1_epi32(1)),
                                                    _mm256_castsi256_ps(_mm256_set1_epi32(-1)), negative));
  const __m256 hi = Select(hi_general, hi_near, near);
  const __m256 lo = Select(lo_general, lo_near, near);
  const __m256 reduced = IntMask(abs_gt_half_ln2);
  __m256i k = _mm256_castps_si256(Select(_mm256_castsi256_ps(k_general), _mm256_castsi256_ps(k_near), near));
  k = _mm256_and_si256(k, abs_gt_half_ln2);  // 0 where no reduction
  const __m256 xr = Select(a, _mm256_sub_ps(hi, lo), reduced);
  const __m256 c = Select(_mm256_setzero_ps(), _mm256_sub_ps(_mm256_sub_ps(hi, xr), lo), reduced);

  // The rational approximation on the reduced argument.
  const __m256 hfx = _mm256_mul_ps(F(0.5f), xr);
  const __m256 hxs = _mm256_mul_ps(xr, hfx);
  __m256 q = _mm256_mul_ps(hxs, Bits(0xb457edbb));
  q = _mm256_mul_ps(hxs, _mm256_add_ps(Bits(0x36867e54), q));
  q = _mm256_mul_ps(hxs, _mm256_add_ps(Bits(0xb8a670cd), q));
  q = _mm256_mul_ps(hxs, _mm256_add_ps(Bits(0x3ad00d01), q));
  q = _mm256_mul_ps(hxs, _mm256_add_ps(Bits(0xbd088889), q));
  const __m256 r1 = _mm256_add_ps(F(1.0f), q);
  const __m256 t = _mm256_sub_ps(F(3.0f), _mm256_mul_ps(r1, hfx));
  __m256 e = _mm256_mul_ps(hxs, _mm256_div_ps(_mm256_sub_ps(r1, t), _mm256_sub_ps(F(6.0f), _mm256_mul_ps(xr, t))));

  const __m256 result_k0 = _mm256_sub_ps(xr, _mm256_sub_ps(_mm256_mul_ps(xr, e), hxs));
  e = _mm256_sub_ps(_mm256_sub_ps(_mm256_mul_ps(xr, _mm256_sub_ps(e, c)), c), hxs);
  const __m256 result_km1 = _mm256_sub_ps(_mm256_mul_ps(F(0.5f), _mm256_sub_ps(xr, e)), F(0.5f));
  // k <= -2 or k > 56: (1 - (e - x)) scaled by 2^k, minus 1.
  const __m256 result_far = _mm256_sub_ps(AddExponent(_mm256_sub_ps(F(1.0f), _mm256_sub_ps(e, xr)), k), F(1.0f));
  // 2 <= k < 23: (1 - 2^-k) - (e - x), scaled by 2^k.
  const __m256i one_minus = _mm256_sub_epi32(_mm256_set1_epi32(0x3f800000),
                                             _mm256_srlv_epi32(_mm256_set1_epi32(0x1000000), k));
  const __m256 result_mid = AddExponent(_mm256_sub_ps(_mm256_castsi256_ps(one_minus), _mm256_sub_ps(e, xr)), k);
  // 23 <= k <= 56: (x - (e + 2^-k)) + 1, scaled by 2^k.
  const __m256 two_minus_k = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_sub_epi32(_mm256_set1_epi32(0x7f), k), 23));
  const __m256 result_high =
      AddExponent(_mm256_add_ps(_mm256_sub_ps(xr, _mm256_add_ps(e, two_minus_k)), F(1.0f)), k);

  const __m256i kk = k;
  const __m256 is_k0 = IntMask(_mm256_cmpeq_epi32(kk, _mm256_setzero_si256()));
  const __m256 is_km1 = IntMask(_mm256_cmpeq_epi32(kk, _mm256_set1_epi32(-1)));
  const __m256 is_far = IntMask(_mm256_or_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(-1), kk),
                                                _mm256_cmpgt_epi32(kk, _mm256_set1_epi32(56))));
  const __m256 is_mid = IntMask(_mm256_cmpgt_epi32(_mm256_set1_epi32(23), kk));
  __m256 result = Select(result_high, result_mid, is_mid);
  result = Select(result, result_far, is_far);
  result = Select(result, result_km1, is_km1);
  result = Select(result, result_k0, is_k0);
  return Select(result, a, IntMask(tiny));
}

inline __m256 Tanh(__m256 x) {
  const __m256i bits = _mm256_castps_si256(x);
  const __m256i ix = _mm256_and_si256(bits, _mm256_set1_epi32(0x7fffffff));
  const __m256 ax = _mm256_castsi256_ps(ix);
  const __m256 sign = _mm256_castsi256_ps(_mm256_and_si256(bits, _mm256_set1_epi32(static_cast<int>(0x80000000u))));
  const __m256 at_least_one = IntMask(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x3f7fffff)));
  // expm1(2|x|) for |x| >= 1, expm1(-2|x|) below.
  const __m256 doubled = _mm256_add_ps(ax, ax);
  const __m256 arg = Select(_mm256_xor_ps(_mm256_mul_ps(ax, F(2.0f)), F(-0.0f)), doubled, at_least_one);
  const __m256 saturated = IntMask(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x41afffff)));
  const __m256 small = IntMask(_mm256_cmpgt_epi32(_mm256_set1_epi32(0x24000000), ix));
  // Lanes that do not use expm1 get a harmless argument.
  const __m256 t = Expm1(Select(arg, F(2.0f), _mm256_or_ps(saturated, small)));
  // 1 - 2 / (t + 2) for |x| >= 1, -t / (t + 2) below: one division for both.
  const __m256 quotient = _mm256_div_ps(Select(_mm256_xor_ps(t, F(-0.0f)), F(2.0f), at_least_one),
                                        _mm256_add_ps(t, F(2.0f)));
  __m256 z = Select(quotient, _mm256_sub_ps(F(1.0f), quotient), at_least_one);
  z = Select(z, F(1.0f), saturated);  // 1 - tiny rounds to 1
  z = _mm256_xor_ps(z, sign);
  // Infinities and NaN (rare): 1/x + 1 or 1/x - 1.
  const __m256 not_finite = IntMask(_mm256_cmpgt_epi32(ix, _mm256_set1_epi32(0x7f7fffff)));
  if (_mm256_movemask_ps(not_finite) != 0) {
    const __m256 reciprocal = _mm256_div_ps(F(1.0f), x);
    const __m256 z_special = Select(_mm256_add_ps(reciprocal, F(1.0f)), _mm256_sub_ps(reciprocal, F(1.0f)),
                                    _mm256_castsi256_ps(_mm256_srai_epi32(bits, 31)));
    z = Select(z, z_special, not_finite);
  }
  // |x| < 2^-55: x (1 + x).
  return Select(z, _mm256_mul_ps(_mm256_add_ps(F(1.0f), x), x), small);
}

}  // namespace tanh_avx2
}  // namespace corvina
