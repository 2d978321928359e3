// Streaming layer kernels, in three sets with identical results:
//   scalar::  the definition, plain loops in the order that fixes the result
//             (isa_scalar.cpp, a test-only library);
//   avx2::    the engine's sweeps (sweep.inc, vector_kernels.inc): several
//             steps per pass over the weights, weights prefetched ahead,
//             GELU fused behind the product that feeds it (isa_avx2.cpp);
//   avx512::  the same with 512-bit vectors (isa_avx512.cpp).
// engine/kernel_set.h chooses which set the processing functions run.
// Every matrix product starts from the bias and accumulates with fused
// multiply-adds over the inputs in ascending order, 32 outputs (one Panel32
// panel) at a time. Kernels read weights and their input, and write only
// their slot; all state lives in the caller's context.
#pragma once
#include <cstddef>
#include <cstdint>

#include "half.h"
#include "shared_layout.h"

namespace corvina {

// Normalisation statistics over n values: sums in double precision (squares
// formed in single), var = E[x^2] + 1e-5 - mean^2, r = 1/sqrt(var) and
// s = -mean * r, both rounded to single. The normalised value is x * r + s.
void NormalizationCoefficients(const float* x, int n, float* r, float* s);

#define CORVINA_DECLARE_KERNELS                                                                         \
  /* y[o] += sum_i W[o][i] x[i] for a Panel32 matrix; outputs a multiple of 32. */                      \
  void PanelAccumulate(const f16* weight, const float* x, float* y, int outputs, int inputs);            \
  /* y = bias + W x. */                                                                                  \
  void PanelProduct(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs); \
  /* In place, n a multiple of 8. */                                                                     \
  void GeluInPlace(float* x, int n);                                                                     \
  /* The same, while fetching the next layer's weights into cache (a hint; only the vector sets use it). */ \
  void GeluInPlacePrefetching(float* x, int n, const f16* next, std::size_t next_halves);                \
  /* y = GELU(bias + W x), fetching the next layer's weights meanwhile (the same hint). */               \
  void PanelProductGelu(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs, \
                        const f16* next, std::size_t next_halves);                                      \
  void SiluInPlace(float* x, int n);                                                                     \
  void Normalize(float* x, int n);                                                                       \
  /* Normalise, then x * scale + shift as one fused multiply-add. */                                     \
  void NormalizeScaleShift(float* x, const f16* scale, const f16* shift, int n);                        \
  float* DenseLayer(const Dense256Weights& weights, const float* x, DenseSlot* slot);                    \
  float* CausalConv7Layer(const CausalConv7Weights& weights, const float* x, CausalConv7Slot* slot);

// Batches: the same layer for n streams (1 <= n <= kMaxBatch), stream s with
// its own input x[s] and its own slot or output y[s]. Each panel's weights are
// widened once for several streams and stay in cache for the rest, so a
// batch fetches them from memory once. Every stream's outputs are those of
// the one-stream kernel, bit for bit. The scalar set runs the streams in
// turn (isa_scalar.cpp).
constexpr int kMaxBatch = 16;
// A sweep's steps: streams, or every position of every stream of a batch.
constexpr int kMaxSweepSteps = 16 * kMaxBatch;

#define CORVINA_DECLARE_BATCH_KERNELS                                                                   \
  void PanelAccumulateN(const f16* weight, const float* const* x, float* const* y, int n, int outputs,   \
                        int inputs);                                                                     \
  void PanelProductN(const f16* weight, const f16* bias, const float* const* x, float* const* y, int n,  \
                     int outputs, int inputs);                                                           \
  void PanelProductGeluN(const f16* weight, const f16* bias, const float* const* x, float* const* y, int n, \
                         int outputs, int inputs, const f16* next, std::size_t next_halves);             \
  /* y[s] += sum over taps t of W_t rows[t * n + s], W_t at weight + t * tap_stride;          \
     taps <= 11, n <= kMaxSweepSteps. */                                                                  \
  void MatrixSweepN(const f16* weight, std::size_t tap_stride, const float* const* rows, int taps, int inputs, \
                    float* const* y, int n, int outputs);                                                \
  void DenseLayerN(const Dense256Weights& weights, const float* const* x, DenseSlot* const* slots, int n); \
  void CausalConv7LayerN(const CausalConv7Weights& weights, const float* const* x, CausalConv7Slot* const* slots, \
                         int n);                                                                         \
  /* Every shape of the residual block (engine/shared_layout.h); defined where the networks are. */      \
  template <int C, int H, int T>                                                                         \
  void ResidualConvBlockN(const ResidualConvWeights<C, H, T>& weights, const float* const* x,            \
                          ResidualConvSlot<C, H, T>* const* slots, int n);

// The vector sets' tanh against the library's (vector_kernels.inc).
namespace avx2 {
std::uint64_t TanhMismatches(std::uint64_t first, std::uint64_t end, std::uint64_t stride);
}
namespace avx512 {
std::uint64_t TanhMismatches(std::uint64_t first, std::uint64_t end, std::uint64_t stride);
}

namespace scalar {
CORVINA_DECLARE_KERNELS
CORVINA_DECLARE_BATCH_KERNELS
}
namespace avx2 {
CORVINA_DECLARE_KERNELS
CORVINA_DECLARE_BATCH_KERNELS
}
namespace avx512 {
CORVINA_DECLARE_KERNELS
CORVINA_DECLARE_BATCH_KERNELS
}
#undef CORVINA_DECLARE_KERNELS
#undef CORVINA_DECLARE_BATCH_KERNELS

}  // namespace corvina
