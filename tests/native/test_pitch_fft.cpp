// The cached-plan real FFTs: exact agreement with the library's one-shot
// r2c/c2r calls, round trips, and the spectrum of a constant.
#include <pocketfft_hdronly.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "engine/fft.h"
#include "tests/native/check.h"

namespace {

using Transform = void (*)(const float*, float*);
using InverseTransform = void (*)(const float*, float*, float);

std::vector<float> RandomSignal(int n, std::mt19937& rng) {
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::vector<float> x(n);
  for (float& v : x) v = normal(rng);
  return x;
}

bool SameBits(const float* a, const float* b, int n) {
  for (int i = 0; i < n; ++i)
    if (std::memcmp(a + i, b + i, sizeof(float)) != 0) return false;
  return true;
}

void CheckMatchesOneShotCalls(int n, Transform forward, InverseTransform inverse, float scale) {
  std::mt19937 rng(check::Seed() + n);
  const pocketfft::shape_t shape{static_cast<std::size_t>(n)};
  const pocketfft::stride_t real_stride{sizeof(float)}, complex_stride{sizeof(std::complex<float>)};
  for (int trial = 0; trial < 20; ++trial) {
    const std::vector<float> x = RandomSignal(n, rng);
    std::vector<std::complex<float>> expected(n / 2 + 1);
    pocketfft::r2c(shape, real_stride, complex_stride, 0, true, x.data(), expected.data(), 1.0f);
    std::vector<float> got(n + 2);
    forward(x.data(), got.data());
    CHECK_MSG(SameBits(got.data(), reinterpret_cast<const float*>(expected.data()), n + 2), "forward %d, trial %d", n,
              trial);

    // Random imaginary parts on bins 0 and n/2 too: both sides must ignore them.
    std::vector<float> spectrum = RandomSignal(n + 2, rng);
    std::vector<float> expected_samples(n), got_samples(n);
    pocketfft::c2r(shape, complex_stride, real_stride, 0, false,
                   reinterpret_cast<const std::complex<float>*>(spectrum.data()), expected_samples.data(), scale);
    inverse(spectrum.data(), got_samples.data(), scale);
    CHECK_MSG(SameBits(got_samples.data(), expected_samples.data(), n), "inverse %d, trial %d", n, trial);
  }
}

void CheckRoundTrip(int n, Transform forward, InverseTransform inverse) {
  std::mt19937 rng(check::Seed() + 7 * n);
  const std::vector<float> x = RandomSignal(n, rng);
  std::vector<float> spectrum(n + 2), back(n);
  forward(x.data(), spectrum.data());
  inverse(spectrum.data(), back.data(), 1.0f / n);
  float worst = 0.0f;
  for (int i = 0; i < n; ++i) worst = std::fmax(worst, std::fabs(back[i] - x[i]));
  CHECK_MSG(worst < 1e-5f, "n = %d: worst round-trip error %g", n, worst);
}

void CheckConstant(int n, Transform forward) {
  const float c = 0.375f;  // every partial sum is exact, so bin 0 is too
  std::vector<float> x(n, c), spectrum(n + 2);
  forward(x.data(), spectrum.data());
  CHECK_MSG(spectrum[0] == n * c && spectrum[1] == 0.0f, "n = %d: bin 0 = (%g, %g)", n, spectrum[0], spectrum[1]);
  float largest = 0.0f;
  for (int i = 2; i < n + 2; ++i) largest = std::fmax(largest, std::fabs(spectrum[i]));
  CHECK_MSG(largest < 1e-5f, "n = %d: largest other bin %g", n, largest);
}

TEST(cached_plans_match_one_shot_calls_bit_for_bit) {
  CheckMatchesOneShotCalls(corvina::kFft560, corvina::ForwardRealFft560, corvina::InverseRealFft560,
                           0.0017857143f);
  CheckMatchesOneShotCalls(corvina::kFft16, corvina::ForwardRealFft16, corvina::InverseRealFft16, 0.0625f);
}

TEST(forward_then_inverse_returns_the_input) {
  CheckRoundTrip(corvina::kFft560, corvina::ForwardRealFft560, corvina::InverseRealFft560);
  CheckRoundTrip(corvina::kFft16, corvina::ForwardRealFft16, corvina::InverseRealFft16);
}

TEST(constant_signal_has_only_bin_zero) {
  CheckConstant(corvina::kFft560, corvina::ForwardRealFft560);
  CheckConstant(corvina::kFft16, corvina::ForwardRealFft16);
}

}  // namespace

CHECK_MAIN
