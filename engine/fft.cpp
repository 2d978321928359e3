// Real FFTs on cached plans. The library's plan works in place on its packed
// layout (r0, r1, i1, r2, i2, ..., r[n/2]); these wrappers convert to and from
// the (n/2 + 1)-bin complex layout exactly as the library's own one-shot
// r2c/c2r calls do, so the results are the same bit for bit.
#include "fft.h"

#include <pocketfft_hdronly.h>

namespace corvina {
namespace {

using Plan = pocketfft::detail::pocketfft_r<float>;

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
  for (int k = 1; k < N / 2; ++k) {
    spectrum[2 * k] = packed[2 * k - 1];
    spectrum[2 * k + 1] = packed[2 * k];
  }
  spectrum[N] = packed[N - 1];
  spectrum[N + 1] = 0.0f;
}

template <int N>
void Inverse(const float* spectrum, float* samples, float scale) {
  samples[0] = spectrum[0];
  for (int k = 1; k < N / 2; ++k) {
    samples[2 * k - 1] = spectrum[2 * k];
    samples[2 * k] = spectrum[2 * k + 1];
  }
  samples[N - 1] = spectrum[N];
  PlanFor<N>().exec(samples, scale, false);
}

static_assert(kFft560 % 2 == 0 && kFft16 % 2 == 0, "the packed layout above assumes even lengths");

}  // namespace

void ForwardRealFft560(const float* samples, float* spectrum) { Forward<kFft560>(samples, spectrum); }
void InverseRealFft560(const float* spectrum, float* samples, float scale) {
  Inverse<kFft560>(spectrum, samples, scale);
}
void ForwardRealFft16(const float* samples, float* spectrum) { Forward<kFft16>(samples, spectrum); }
void InverseRealFft16(const float* spectrum, float* samples, float scale) { Inverse<kFft16>(spectrum, samples, scale); }

}  // namespace corvina
