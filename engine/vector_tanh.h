// The C library's single-precision tanh on vectors, bit for bit, written once
// for any width. The library computes tanh(x) from expm1(2|x|) (|x| >= 1) or
// expm1(-2|x|) with a reduction by ln 2 and a rational approximation, in
// single precision without fused multiply-adds; the same operations in the
// same order on vectors give the same roundings, so every result equals the
// library call. kernel_set.cpp confirms this against the library when it
// loads (and the vector sets fall back to the library call where it differs);
// tests/native/test_tanh_exhaustive.cpp compares every float on every width.
//
// `O` names a width's operations (vector_math_avx2.h, isa_avx512.cpp):
// float vectors V, integer vectors I and lane masks M, which may be vectors of
// all-ones lanes or mask registers.
#pragma once
#include <cstdint>

namespace corvina {
namespace {  // internal linkage: each vector translation unit keeps its own copies

// expm1 for the arguments tanh passes: a in [2, 44) or a in (-2, -2^-54].
// Both are inlined into their callers' loops (GELU): as calls, every vector
// rebuilt the two dozen constants and the loop could not overlap them.
#define CORVINA_TANH_INLINE inline __attribute__((always_inline))

template <typename O>
CORVINA_TANH_INLINE typename O::V LibraryExpm1(typename O::V a) {
  using V = typename O::V;
  using I = typename O::I;
  using M = typename O::M;
  const V ln2_hi = O::Bits(0x3f317180), ln2_lo = O::Bits(0x3717f7d1), invln2 = O::Bits(0x3fb8aa3b);
  const I habs = O::AndI(O::AsInt(a), O::Int(0x7fffffff));
  const M negative = O::Negative(a);
  const M abs_gt_half_ln2 = O::Greater(habs, O::Int(0x3eb17218));
  const M abs_lt_3_half_ln2 = O::Greater(O::Int(0x3F851592), habs);
  const M tiny = O::Greater(O::Int(0x33000000), habs);

  // |a| in (ln2/2, 3 ln2/2): k = -1 (only negative a come here); beyond: k rounded.
  const V k_general_f = O::Add(O::Mul(invln2, a), O::Select(O::F(0.5f), O::F(-0.5f), negative));
  const I k_general = O::Truncate(k_general_f);
  const V t_general = O::ToFloat(k_general);
  const V hi_general = O::Sub(a, O::Mul(t_general, ln2_hi));
  const V lo_general = O::Mul(t_general, ln2_lo);
  const M near = O::And(abs_gt_half_ln2, abs_lt_3_half_ln2);
  const V hi_near = O::Select(O::Sub(a, ln2_hi), O::Add(a, ln2_hi), negative);
  const V lo_near = O::Select(ln2_lo, O::Xor(ln2_lo, O::F(-0.0f)), negative);
  const I k_near = O::SelectInt(O::Int(1), O::Int(-1), negative);
  const V hi = O::Select(hi_general, hi_near, near);
  const V lo = O::Select(lo_general, lo_near, near);
  const I k = O::Keep(abs_gt_half_ln2, O::SelectInt(k_general, k_near, near));  // 0 where no reduction
  const V xr = O::Select(a, O::Sub(hi, lo), abs_gt_half_ln2);
  const V c = O::Select(O::F(0.0f), O::Sub(O::Sub(hi, xr), lo), abs_gt_half_ln2);

  // The rational approximation on the reduced argument.
  const V hfx = O::Mul(O::F(0.5f), xr);
  const V hxs = O::Mul(xr, hfx);
  V q = O::Mul(hxs, O::Bits(0xb457edbb));
  q = O::Mul(hxs, O::Add(O::Bits(0x36867e54), q));
  q = O::Mul(hxs, O::Add(O::Bits(0xb8a670cd), q));
  q = O::Mul(hxs, O::Add(O::Bits(0x3ad00d01), q));
  q = O::Mul(hxs, O::Add(O::Bits(0xbd088889), q));
  const V r1 = O::Add(O::F(1.0f), q);
  const V t = O::Sub(O::F(3.0f), O::Mul(r1, hfx));
  V e = O::Mul(hxs, O::Div(O::Sub(r1, t), O::Sub(O::F(6.0f), O::Mul(xr, t))));

  const V result_k0 = O::Sub(xr, O::Sub(O::Mul(xr, e), hxs));
  e = O::Sub(O::Sub(O::Mul(xr, O::Sub(e, c)), c), hxs);
  const V result_km1 = O::Sub(O::Mul(O::F(0.5f), O::Sub(xr, e)), O::F(0.5f));
  // k <= -2 or k > 56: (1 - (e - x)) scaled by 2^k, minus 1.
  const V result_far = O::Sub(O::AddExponent(O::Sub(O::F(1.0f), O::Sub(e, xr)), k), O::F(1.0f));
  // 2 <= k < 23: (1 - 2^-k) - (e - x), scaled by 2^k.
  const I one_minus = O::SubI(O::Int(0x3f800000), O::ShiftRight(O::Int(0x1000000), k));
  const V result_mid = O::AddExponent(O::Sub(O::AsFloat(one_minus), O::Sub(e, xr)), k);
  // 23 <= k <= 56: (x - (e + 2^-k)) + 1, scaled by 2^k.
  const V two_minus_k = O::AsFloat(O::ShiftLeft23(O::SubI(O::Int(0x7f), k)));
  const V result_high = O::AddExponent(O::Add(O::Sub(xr, O::Add(e, two_minus_k)), O::F(1.0f)), k);

  const M is_k0 = O::Equal(k, O::Int(0));
  const M is_km1 = O::Equal(k, O::Int(-1));
  const M is_far = O::Or(O::Greater(O::Int(-1), k), O::Greater(k, O::Int(56)));
  const M is_mid = O::Greater(O::Int(23), k);
  V result = O::Select(result_high, result_mid, is_mid);
  result = O::Select(result, result_far, is_far);
  result = O::Select(result, result_km1, is_km1);
  result = O::Select(result, result_k0, is_k0);
  return O::Select(result, a, tiny);
}

template <typename O>
CORVINA_TANH_INLINE typename O::V LibraryTanh(typename O::V x) {
  using V = typename O::V;
  using I = typename O::I;
  using M = typename O::M;
  const I bits = O::AsInt(x);
  const I ix = O::AndI(bits, O::Int(0x7fffffff));
  const V ax = O::AsFloat(ix);
  const V sign = O::AsFloat(O::AndI(bits, O::Int(static_cast<std::int32_t>(0x80000000u))));
  const M at_least_one = O::Greater(ix, O::Int(0x3f7fffff));
  // expm1(2|x|) for |x| >= 1, expm1(-2|x|) below.
  const V doubled = O::Add(ax, ax);
  const V arg = O::Select(O::Xor(O::Mul(ax, O::F(2.0f)), O::F(-0.0f)), doubled, at_least_one);
  const M saturated = O::Greater(ix, O::Int(0x41afffff));
  const M small = O::Greater(O::Int(0x24000000), ix);
  // Lanes that do not use expm1 get a harmless argument.
  const V t = LibraryExpm1<O>(O::Select(arg, O::F(2.0f), O::Or(saturated, small)));
  // 1 - 2 / (t + 2) for |x| >= 1, -t / (t + 2) below: one division for both.
  const V quotient = O::Div(O::Select(O::Xor(t, O::F(-0.0f)), O::F(2.0f), at_least_one), O::Add(t, O::F(2.0f)));
  V z = O::Select(quotient, O::Sub(O::F(1.0f), quotient), at_least_one);
  z = O::Select(z, O::F(1.0f), saturated);  // 1 - tiny rounds to 1
  z = O::Xor(z, sign);
  // Infinities and NaN (rare): 1/x + 1 or 1/x - 1.
  const M not_finite = O::Greater(ix, O::Int(0x7f7fffff));
  if (O::Any(not_finite)) {
    const V reciprocal = O::Div(O::F(1.0f), x);
    const V z_special = O::Select(O::Add(reciprocal, O::F(1.0f)), O::Sub(reciprocal, O::F(1.0f)),
                                  O::Greater(O::Int(0), bits));
    z = O::Select(z, z_special, not_finite);
  }
  // |x| < 2^-55: x (1 + x).
  return O::Select(z, O::Mul(O::Add(O::F(1.0f), x), x), small);
}

// The operations of O on two vectors at once, op by op: LibraryTanh over a
// pair interleaves two independent chains, which the processor overlaps
// better than one vector after the other (a chain is long and waits on two
// divisions). Every lane takes the same operations, so the same bits.
template <typename O>
struct PairOps {
  struct V {
    typename O::V a, b;
  };
  struct I {
    typename O::I a, b;
  };
  struct M {
    typename O::M a, b;
  };
#define CORVINA_PAIR_CONST(R, name, T) \
  static R name(T v) { const auto one = O::name(v); return {one, one}; }
#define CORVINA_PAIR_1(R, name, A) \
  static R name(A x) { return {O::name(x.a), O::name(x.b)}; }
#define CORVINA_PAIR_2(R, name, A, B) \
  static R name(A x, B y) { return {O::name(x.a, y.a), O::name(x.b, y.b)}; }
  CORVINA_PAIR_CONST(V, Bits, std::uint32_t)
  CORVINA_PAIR_CONST(V, F, float)
  CORVINA_PAIR_CONST(I, Int, std::int32_t)
  CORVINA_PAIR_1(V, AsFloat, I)
  CORVINA_PAIR_1(I, AsInt, V)
  CORVINA_PAIR_1(I, ShiftLeft23, I)
  CORVINA_PAIR_1(I, Truncate, V)
  CORVINA_PAIR_1(V, ToFloat, I)
  CORVINA_PAIR_1(M, Negative, V)
  CORVINA_PAIR_2(V, Add, V, V)
  CORVINA_PAIR_2(V, Sub, V, V)
  CORVINA_PAIR_2(V, Mul, V, V)
  CORVINA_PAIR_2(V, Div, V, V)
  CORVINA_PAIR_2(V, Xor, V, V)
  CORVINA_PAIR_2(I, AndI, I, I)
  CORVINA_PAIR_2(I, SubI, I, I)
  CORVINA_PAIR_2(I, ShiftRight, I, I)
  CORVINA_PAIR_2(V, AddExponent, V, I)
  CORVINA_PAIR_2(M, Greater, I, I)
  CORVINA_PAIR_2(M, Equal, I, I)
  CORVINA_PAIR_2(M, And, M, M)
  CORVINA_PAIR_2(M, Or, M, M)
  CORVINA_PAIR_2(I, Keep, M, I)
#undef CORVINA_PAIR_CONST
#undef CORVINA_PAIR_1
#undef CORVINA_PAIR_2
  static bool Any(M m) { return O::Any(m.a) || O::Any(m.b); }
  static V Select(V f, V t, M m) { return {O::Select(f.a, t.a, m.a), O::Select(f.b, t.b, m.b)}; }
  static I SelectInt(I f, I t, M m) { return {O::SelectInt(f.a, t.a, m.a), O::SelectInt(f.b, t.b, m.b)}; }
};

}  // namespace
}  // namespace corvina

#undef CORVINA_TANH_INLINE
