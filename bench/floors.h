// The two floors a frame is measured against, taken on the spot:
//   the multiply-add floor: a pure multiply-add loop at the widest width the
//   processor supports, with enough independent accumulators to keep every
//   unit busy: the most single-precision multiply-adds one core does a second;
//   the weight-pass floor: one pass over a model block with a kernel set's
//   matrix product (every half read and widened once, as a frame does).
// Only the loop's own functions carry ISA attributes; the width is chosen by
// the engine's processor check.
#pragma once
#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "bench/bench_common.h"
#include "engine/kernel_set.h"
#include "engine/kernels.h"

namespace corvina::bench {

// acc = acc * a + b on independent chains: more chains than the units'
// latency times their count, so no multiply-add waits on another. a and b
// keep every value near 1 (no overflow, no subnormals); `start` comes from
// memory the compiler cannot see, so it cannot fold the loop away. Twelve of the sixteen
// 256-bit registers, sixteen of the thirty-two 512-bit ones.
__attribute__((target("avx2,fma"))) inline float FmaLoop8(long iterations, float start) {
  constexpr int kChains = 12;
  __m256 acc[kChains];
  for (int k = 0; k < kChains; ++k) acc[k] = _mm256_set1_ps(start + 0.001f * k);
  const __m256 a = _mm256_set1_ps(0.999f), b = _mm256_set1_ps(0.001f);
  for (long i = 0; i < iterations; ++i)
    for (int k = 0; k < kChains; ++k) acc[k] = _mm256_fmadd_ps(acc[k], a, b);
  for (int k = 1; k < kChains; ++k) acc[0] = _mm256_add_ps(acc[0], acc[k]);
  return _mm256_cvtss_f32(acc[0]);
}

__attribute__((target("avx512f"))) inline float FmaLoop16(long iterations, float start) {
  constexpr int kChains = 16;
  __m512 acc[kChains];
  for (int k = 0; k < kChains; ++k) acc[k] = _mm512_set1_ps(start + 0.001f * k);
  const __m512 a = _mm512_set1_ps(0.999f), b = _mm512_set1_ps(0.001f);
  for (long i = 0; i < iterations; ++i)
    for (int k = 0; k < kChains; ++k) acc[k] = _mm512_fmadd_ps(acc[k], a, b);
  for (int k = 1; k < kChains; ++k) acc[0] = _mm512_add_ps(acc[0], acc[k]);
  return _mm512_cvtss_f32(acc[0]);
}

struct FmaPeak {
  const char* width;          // "512-bit" or "256-bit"
  double multiply_adds_per_s;  // the fastest of the timed runs, one core

  double Micros(double multiply_adds) const { return multiply_adds / multiply_adds_per_s * 1e6; }
};

// The fastest of `runs` loops of under a millisecond each, after a warm-up
// that lets the core settle at its wide-vector clock.
inline FmaPeak MeasureFmaPeak(int runs = 40) {
  const bool wide = KernelSetSupported(KernelSet::kAvx512);
  const int multiply_adds = wide ? 16 * 16 : 12 * 8;  // per iteration
  constexpr long kIterations = 1 << 18;  // 25 M (256-bit) or 67 M (512-bit) multiply-adds
  volatile float keep = 1.0f;
  double best = 0.0;
  for (int r = -10; r < runs; ++r) {
    const Clock::time_point t0 = Clock::now();
    keep = wide ? FmaLoop16(kIterations, keep) : FmaLoop8(kIterations, keep);
    const double seconds = Micros(Clock::now() - t0) * 1e-6;
    if (r >= 0) best = std::max(best, static_cast<double>(kIterations) * multiply_adds / seconds);
  }
  return {wide ? "512-bit" : "256-bit", best};
}

// One pass over `bytes` of halves from `block` with `set`'s matrix product,
// taken as one Panel32 matrix of 256 inputs (the products' common shape) as
// tall as the block; the inputs are zeros, so only the reading and the
// arithmetic count.
class WeightPass {
 public:
  explicit WeightPass(std::size_t largest_block)
      : zeros_(kInputs, 0.0f), sink_(largest_block / kPanelBytes * kPanel) {}

  double Micros(KernelSet set, const void* block, std::size_t bytes) {
    const auto accumulate = set == KernelSet::kAvx512 ? avx512::PanelAccumulate : avx2::PanelAccumulate;
    const Clock::time_point t0 = Clock::now();
    accumulate(static_cast<const f16*>(block), zeros_.data(), sink_.data(),
               static_cast<int>(bytes / kPanelBytes * kPanel), kInputs);
    return bench::Micros(Clock::now() - t0);
  }

 private:
  static constexpr int kInputs = 256;
  static constexpr std::size_t kPanelBytes = kInputs * kPanel * sizeof(f16);
  std::vector<float> zeros_, sink_;
};

}  // namespace corvina::bench
