// The AVX-512 set: every kernel and network with 512-bit sweeps, and its
// table. The only file compiled with AVX-512; it runs only where the
// processor check at load (kernel_set.cpp) finds AVX-512.
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "../phone/phone_kernels.h"
#include "../pitch/pitch_network.h"
#include "../waveform/dilated_causal_conv.h"
#include "../waveform/waveform_kernels.h"
#include "batch.h"
#include "fft.h"
#include "kernel_set.h"
#include "kernels.h"
#include "vector_math_avx2.h"
#include "vector_tanh.h"

// 16-lane half-precision loads, the width-generic operations on 512-bit
// vectors and the library's tanh on them. The other activations stay on 8
// lanes (vector_math_avx2.h): the reciprocal estimate they use has no 512-bit
// form with the same table.
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
  static V Mul(V a, V b) { return _mm512_mul_ps(a, b); }
  static V Set(float v) { return _mm512_set1_ps(v); }
  static V Tanh(V v);  // the library's, below
  static void Tanh2(V u0, V u1, V* t0, V* t1);  // the same on two vectors side by side
};

}  // namespace
}  // namespace corvina

// The operations of the library's tanh (vector_tanh.h) on sixteen lanes,
// lane masks in mask registers. Conversions and shifts take their all-lanes
// zero-masking forms, the plain operations (which trip GCC's
// uninitialised-value warning).
namespace corvina {
namespace {

struct TanhOps16 {
  using V = __m512;
  using I = __m512i;
  using M = __mmask16;
  static constexpr M kAll = 0xFFFF;
  static V Bits(std::uint32_t bits) { return _mm512_castsi512_ps(_mm512_set1_epi32(static_cast<int>(bits))); }
  static V F(float v) { return _mm512_set1_ps(v); }
  static I Int(std::int32_t v) { return _mm512_set1_epi32(v); }
  static V AsFloat(I v) { return _mm512_castsi512_ps(v); }
  static I AsInt(V v) { return _mm512_castps_si512(v); }
  static V Add(V a, V b) { return _mm512_add_ps(a, b); }
  static V Sub(V a, V b) { return _mm512_sub_ps(a, b); }
  static V Mul(V a, V b) { return _mm512_mul_ps(a, b); }
  static V Div(V a, V b) { return _mm512_div_ps(a, b); }
  static V Xor(V a, V b) { return _mm512_xor_ps(a, b); }
  static I AndI(I a, I b) { return _mm512_and_si512(a, b); }
  static I SubI(I a, I b) { return _mm512_sub_epi32(a, b); }
  static I ShiftLeft23(I v) { return _mm512_maskz_slli_epi32(kAll, v, 23); }
  static I ShiftRight(I v, I count) { return _mm512_maskz_srlv_epi32(kAll, v, count); }
  static I Truncate(V v) { return _mm512_maskz_cvttps_epi32(kAll, v); }
  static V ToFloat(I v) { return _mm512_maskz_cvtepi32_ps(kAll, v); }
  static V AddExponent(V y, I k) { return AsFloat(_mm512_add_epi32(AsInt(y), ShiftLeft23(k))); }
  static M Negative(V a) { return _mm512_cmp_ps_mask(a, _mm512_setzero_ps(), _CMP_LT_OQ); }
  static M Greater(I a, I b) { return _mm512_cmpgt_epi32_mask(a, b); }
  static M Equal(I a, I b) { return _mm512_cmpeq_epi32_mask(a, b); }
  static M And(M a, M b) { return static_cast<M>(a & b); }
  static M Or(M a, M b) { return static_cast<M>(a | b); }
  static bool Any(M m) { return m != 0; }
  static V Select(V when_false, V when_true, M mask) { return _mm512_mask_blend_ps(mask, when_false, when_true); }
  static I SelectInt(I when_false, I when_true, M mask) { return _mm512_mask_blend_epi32(mask, when_false, when_true); }
  static I Keep(M mask, I v) { return _mm512_maskz_mov_epi32(mask, v); }
};

inline __m512 Lanes16::Tanh(__m512 v) { return LibraryTanh<TanhOps16>(v); }
inline void Lanes16::Tanh2(__m512 u0, __m512 u1, __m512* t0, __m512* t1) {
  const auto t = LibraryTanh<PairOps<TanhOps16>>({u0, u1});
  *t0 = t.a;
  *t1 = t.b;
}

}  // namespace
}  // namespace corvina

namespace corvina {
namespace avx512 {

using Lanes = Lanes16;
#include "vector_set.inc"

}  // namespace avx512

extern const KernelTable kAvx512Kernels = {"avx512", avx512::ExtractPhoneN, avx512::PitchNetworkN,
                                           avx512::GenerateWaveformN};

}  // namespace corvina
