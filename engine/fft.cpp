// Real FFTs on cached plans. The library's plan works in place on its packed
// layout (r0, r1, i1, r2, i2, ..., r[n/2]); these wrappers convert to and from
// the (n/2 + 1)-bin complex layout exactly as the library's own one-shot
// r2c/c2r calls do, so the results are the same bit for bit. In the packed
// layout value j (0 < j < n) is value j + 1 of the complex layout.
#include "fft.h"

#include <xmmintrin.h>

#include <pocketfft_hdronly.h>

namespace corvina {
namespace {

using Plan = pocketfft::detail::pocketfft_r<float>;

// kFftLanes floats that the library's templates treat as one value: every
// operation applies lane by lane.
using Lanes = float __attribute__((vector_size(kFftLanes * sizeof(float))));

template <int N>
const Plan& PlanFor() {
  static const Plan plan(N);  // thread-safe one-time construction
  return plan;
}

template <int N>
void Forward(const float* samples, float* spectrum) {
  float packed[N];
  for (int i = 0; i < N; ++i) packed[i] = samples[i];
  PlanFor<N>().exec(packed, 1.0f, true);
  spectrum[0] = packed[0];
  spectrum[1] = 0.0f;
  for (int j = 1; j < N; ++j) spectrum[j + 1] = packed[j];
  spectrum[N + 1] = 0.0f;
}

template <int N>
void Inverse(const float* spectrum, float* samples, float scale) {
  samples[0] = spectrum[0];
  for (int j = 1; j < N; ++j) samples[j] = spectrum[j + 1];
  PlanFor<N>().exec(samples, scale, false);
}

// Four rows of four floats <-> four lanes of four values, the unused rows
// zero on the way in and not written on the way out.
void RowsToLanes(const float* const* rows, int count, int at, Lanes* lanes) {
  __m128 r[kFftLanes];
  for (int t = 0; t < kFftLanes; ++t) r[t] = t < count ? _mm_loadu_ps(rows[t] + at) : _mm_setzero_ps();
  _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
  for (int i = 0; i < kFftLanes; ++i) lanes[i] = reinterpret_cast<Lanes>(r[i]);
}

void LanesToRows(const Lanes* lanes, int count, int at, float* const* rows) {
  __m128 r[kFftLanes];
  for (int i = 0; i < kFftLanes; ++i) r[i] = reinterpret_cast<__m128>(lanes[i]);
  _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
  for (int t = 0; t < count; ++t) _mm_storeu_ps(rows[t] + at, r[t]);
}

// Up to kFftLanes transforms, one a lane; the unused lanes transform zeros.
template <int N>
void ForwardLanes(const float* const* samples, float* const* spectra, int count) {
  Lanes packed[N];
  for (int i = 0; i < N; i += kFftLanes) RowsToLanes(samples, count, i, packed + i);
  PlanFor<N>().exec(packed, 1.0f, true);
  // Packed value j is spectrum value j + 1, but for value 0.
  for (int j = 0; j < N; j += kFftLanes) LanesToRows(packed + j, count, j + 1, spectra);
  for (int t = 0; t < count; ++t) {
    spectra[t][0] = spectra[t][1];
    spectra[t][1] = 0.0f;
    spectra[t][N + 1] = 0.0f;
  }
}

template <int N>
void InverseLanes(const float* const* spectra, float* const* samples, int count, float scale) {
  Lanes packed[N];
  for (int j = 0; j < N; j += kFftLanes) RowsToLanes(spectra, count, j + 1, packed + j);
  for (int t = 0; t < count; ++t) packed[0][t] = spectra[t][0];
  PlanFor<N>().exec(packed, scale, false);
  for (int i = 0; i < N; i += kFftLanes) LanesToRows(packed + i, count, i, samples);
}

static_assert(kFftLanes == 4 && kFft560 % kFftLanes == 0, "the lanes are one SSE register; the length is whole blocks");
static_assert(kFft560 % 2 == 0 && kFft16 % 2 == 0, "the packed layout above assumes even lengths");

}  // namespace

void ForwardRealFft560(const float* samples, float* spectrum) { Forward<kFft560>(samples, spectrum); }
void InverseRealFft560(const float* spectrum, float* samples, float scale) {
  Inverse<kFft560>(spectrum, samples, scale);
}

// A transform left on its own runs alone: quicker than a vector of one.
void ForwardRealFfts560(const float* const* samples, float* const* spectra, int count) {
  for (int t = 0; t < count; t += kFftLanes) {
    const int lanes = count - t < kFftLanes ? count - t : kFftLanes;
    if (lanes == 1) Forward<kFft560>(samples[t], spectra[t]);
    else ForwardLanes<kFft560>(samples + t, spectra + t, lanes);
  }
}
void InverseRealFfts560(const float* const* spectra, float* const* samples, int count, float scale) {
  for (int t = 0; t < count; t += kFftLanes) {
    const int lanes = count - t < kFftLanes ? count - t : kFftLanes;
    if (lanes == 1) Inverse<kFft560>(spectra[t], samples[t], scale);
    else InverseLanes<kFft560>(spectra + t, samples + t, lanes, scale);
  }
}

void ForwardRealFft16(const float* samples, float* spectrum) { Forward<kFft16>(samples, spectrum); }
void InverseRealFft16(const float* spectrum, float* samples, float scale) { Inverse<kFft16>(spectrum, samples, scale); }

}  // namespace corvina
