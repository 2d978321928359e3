// The cached-plan real FFTs give exactly what the library's one-shot r2c and
// c2r calls give, so round trips and spectra are the library's own.
#include <pocketfft_hdronly.h>

#include <complex>
#include <vector>

#include "engine/fft.h"
#include "test_support.h"
#include "tests/native/check.h"

namespace {

using namespace test_support;

void CheckMatchesOneShotCalls(int n, void (*forward)(const float*, float*),
                              void (*inverse)(const float*, float*, float), float scale) {
  Rng rng(check::Seed() + n);
  const pocketfft::shape_t shape{static_cast<std::size_t>(n)};
  const pocketfft::stride_t real_stride{sizeof(float)}, complex_stride{sizeof(std::complex<float>)};
  for (int trial = 0; trial < 20; ++trial) {
    const std::vector<float> x = RandomFloats(n, 2.0f, rng);
    std::vector<std::complex<float>> expected(n / 2 + 1);
    pocketfft::r2c(shape, real_stride, complex_stride, 0, true, x.data(), expected.data(), 1.0f);
    std::vector<float> got(n + 2);
    forward(x.data(), got.data());
    CHECK_MSG(SameFloats(got.data(), reinterpret_cast<const float*>(expected.data()), n + 2), "forward %d, trial %d",
              n, trial);

    // Random imaginary parts on bins 0 and n/2 too: both sides must ignore them.
    const std::vector<float> spectrum = RandomFloats(n + 2, 2.0f, rng);
    std::vector<float> expected_samples(n), got_samples(n);
    pocketfft::c2r(shape, complex_stride, real_stride, 0, false,
                   reinterpret_cast<const std::complex<float>*>(spectrum.data()), expected_samples.data(), scale);
    inverse(spectrum.data(), got_samples.data(), scale);
    CHECK_MSG(SameFloats(got_samples.data(), expected_samples.data(), n), "inverse %d, trial %d", n, trial);
  }
}

TEST(cached_plans_match_one_shot_calls_bit_for_bit) {
  CheckMatchesOneShotCalls(corvina::kFft560, corvina::ForwardRealFft560, corvina::InverseRealFft560,
                           0.0017857143f);
  CheckMatchesOneShotCalls(corvina::kFft16, corvina::ForwardRealFft16, corvina::InverseRealFft16, 0.0625f);
}

}  // namespace

CHECK_MAIN
