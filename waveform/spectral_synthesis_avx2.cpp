// The synthesis pieces with 256-bit vectors; each output keeps the order of
// spectral_synthesis_scalar.cpp, so the two agree bit for bit. The synthesis
// itself is in spectral_synthesis.inc.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "../engine/fft.h"
#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "waveform_kernels.h"

namespace corvina {
namespace avx2 {

// Lanes are sub-steps: the input is transposed to [channel][sub-step] (six
// ring steps, the frame's fifteen, three zeros), so that one vector holds a
// channel over eight consecutive sub-steps and each output runs its whole
// sum (bias, taps ascending, inputs ascending) in two accumulators.
void LogMagnitudes(const f16 (*weight)[kSpectrumValues][kStage2Channels], const f16* bias, const float* x,
                   float (*history)[kStage2Channels], std::int32_t* position, float (*magnitudes)[kSpectrumValues]) {
  constexpr int kPast = kLogMagnitudeTaps - 1;
  constexpr int kColumns = 24;
  alignas(32) float columns[kStage2Channels][kColumns];
  const int p = *position;
  for (int c = 0; c < kStage2Channels; ++c) {
    for (int j = 0; j < kPast; ++j) columns[c][j] = history[(p + j) % kPast][c];
    for (int s = 0; s < kStage2Steps; ++s) columns[c][kPast + s] = x[s * kStage2Channels + c];
    for (int j = kPast + kStage2Steps; j < kColumns; ++j) columns[c][j] = 0.0f;
  }
  for (int o = 0; o < kSpectrumValues; ++o) {
    __m256 early = _mm256_set1_ps(_cvtsh_ss(bias[o]));
    __m256 late = early;
    for (int k = 0; k < kLogMagnitudeTaps; ++k) {
      const f16* w = weight[k][o];
      for (int i = 0; i < kStage2Channels; i += 8) {
        alignas(32) float widened[8];
        _mm256_store_ps(widened, LoadHalf8(w + i));
        for (int j = 0; j < 8; ++j) {
          const __m256 wj = _mm256_broadcast_ss(widened + j);
          early = _mm256_fmadd_ps(wj, _mm256_loadu_ps(columns[i + j] + k), early);
          late = _mm256_fmadd_ps(wj, _mm256_loadu_ps(columns[i + j] + k + 8), late);
        }
      }
    }
    alignas(32) float result[16];
    _mm256_store_ps(result, ExpTable8(early));
    _mm256_store_ps(result + 8, ExpTable8(late));
    for (int s = 0; s < kStage2Steps; ++s) magnitudes[s][o] = result[s];
  }
  // Six writes from the index leave it where it was.
  for (int j = 0; j < kPast; ++j)
    std::memcpy(history[(p + j) % kPast], x + (kStage2Steps - kPast + j) * kStage2Channels,
                sizeof(float) * kStage2Channels);
}

void PhaseGates(const float* gi, const float* gh, float* h) { GatedRecurrentUpdate8(gi, gh, h, kPhaseHidden); }

void OverlapAdd(const float* frame, const float* window, const float* scale, float* buffer, float* out) {
  const __m256 shifted_low = _mm256_loadu_ps(buffer + 4);
  const __m256 shifted_high = _mm256_set_m128(_mm_setzero_ps(), _mm_loadu_ps(buffer + 12));
  const __m256 low = _mm256_fmadd_ps(_mm256_loadu_ps(window), _mm256_loadu_ps(frame), shifted_low);
  const __m256 high = _mm256_fmadd_ps(_mm256_loadu_ps(window + 8), _mm256_loadu_ps(frame + 8), shifted_high);
  _mm256_storeu_ps(buffer, low);
  _mm256_storeu_ps(buffer + 8, high);
  const __m128 hop = _mm_mul_ps(_mm256_castps256_ps128(low), _mm_loadu_ps(scale));
  _mm_storeu_ps(out, _mm_mul_ps(hop, _mm_set1_ps(kBandGain)));
}

// Lanes are output samples; six vectors of eight run side by side so that
// the 252-step accumulation chains overlap.
void BandMerge(const f16 (*filter)[kBands], const float (*bands)[kBandSamples], float (*history)[kBands],
               std::int32_t* position, float* output) {
  constexpr int kPositions = kMergePast + kOutHop;
  constexpr int kLanes = 8, kRun = 6;
  static_assert(kOutHop % (kLanes * kRun) == 0, "whole runs");
  alignas(32) float stuffed[kBands][kPositions];
  alignas(32) float taps[kMergeTaps][kBands];
  const int p = *position;
  for (int b = 0; b < kBands; ++b) {
    for (int j = 0; j < kMergePast; ++j) stuffed[b][j] = history[(p + j) % kMergePast][b];
    for (int n = 0; n < kBandSamples; ++n) {
      float* at = stuffed[b] + kMergePast + kBands * n;
      at[0] = bands[b][n];
      at[1] = at[2] = at[3] = 0.0f;
    }
  }
  for (int k = 0; k < kMergeTaps; ++k)
    _mm_store_ps(taps[k], _mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(filter[k]))));
  for (int t0 = 0; t0 < kOutHop; t0 += kLanes * kRun) {
    __m256 acc[kRun];
    for (int r = 0; r < kRun; ++r) acc[r] = _mm256_setzero_ps();
    for (int k = 0; k < kMergeTaps; ++k) {
      for (int b = 0; b < kBands; ++b) {
        const __m256 f = _mm256_broadcast_ss(&taps[k][b]);
        for (int r = 0; r < kRun; ++r)
          acc[r] = _mm256_fmadd_ps(f, _mm256_loadu_ps(stuffed[b] + t0 + r * kLanes + k), acc[r]);
      }
    }
    for (int r = 0; r < kRun; ++r) _mm256_storeu_ps(output + t0 + r * kLanes, acc[r]);
  }
  const int next = (p + kOutHop) % kMergePast;
  for (int j = 0; j < kMergePast; ++j)
    for (int b = 0; b < kBands; ++b) history[(next + j) % kMergePast][b] = stuffed[b][kOutHop + j];
  *position = next;
}

#include "spectral_synthesis.inc"

}  // namespace avx2
}  // namespace corvina
