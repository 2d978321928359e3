// The pitch front end's FFT and running-energy forms against direct sums in
// double precision, and the rounding corner of a constant signal. (Silence,
// the first frame and tones are compared end to end with the reference.)
#include <algorithm>
#include <cmath>
#include <vector>

#include "pitch/spectral_front_end.h"
#include "test_support.h"
#include "tests/native/check.h"

namespace {

using corvina::PitchFrontEndState;
constexpr int kHop = CORVINA_IN_HOP_LENGTH;

// Feeds `signal` frame by frame into a fresh state.
void Feed(const std::vector<float>& signal, PitchFrontEndState* state) {
  for (std::size_t start = 0; start + kHop <= signal.size(); start += kHop)
    corvina::SpectralFrontEnd(signal.data() + start, state);
}

std::vector<float> RandomSignal(int n, unsigned seed) {
  test_support::Rng rng(seed);
  return test_support::RandomFloats(n, 0.5f, rng);
}

TEST(correlation_matches_direct_sums) {
  const std::vector<float> x = RandomSignal(corvina::kPitchHistory, check::Seed() + 1);
  float correlation[corvina::kPitchHistory];
  corvina::LagCorrelation(x.data(), correlation);
  double worst = 0.0;
  for (int lag = 1; lag <= corvina::kLags; ++lag) {
    double sum = 0.0, scale = 0.0;
    for (int m = 0; m < corvina::kNewestSamples; ++m) {
      sum += static_cast<double>(x[256 + m]) * x[256 + m - lag];
      scale += std::fabs(static_cast<double>(x[256 + m]) * x[256 + m - lag]);
    }
    worst = std::max(worst, std::fabs(correlation[corvina::kCorrelationOffset + lag] - sum) / scale);
  }
  CHECK_MSG(worst < 1e-5, "worst relative correlation error %g", worst);
}

// Lag features and loudness against their definitions, on a full history.
TEST(lag_features_and_loudness_match_their_definitions) {
  const std::vector<float> signal = RandomSignal(7 * kHop, check::Seed() + 2);
  PitchFrontEndState state{};
  Feed(signal, &state);
  const float* x = state.history;
  double worst = 0.0, energy = 0.0;
  for (int n = 256; n < 560; ++n) energy += static_cast<double>(x[n]) * x[n];
  for (int lag = 1; lag <= corvina::kLags; ++lag) {
    double d = 0.0;
    for (int n = 256; n < 560; ++n) d += (static_cast<double>(x[n]) - x[n - lag]) * (x[n] - x[n - lag]);
    worst = std::max(worst, std::fabs(state.lag[lag - 1] - std::sqrt(d * 2.0 / 304.0)));
  }
  CHECK_MSG(worst < 1e-5, "worst lag feature error %g", worst);
  CHECK_MSG(std::fabs(state.loudness - 0.5 * std::log10(energy + 1e-5)) < 1e-6, "loudness %g", state.loudness);
}

// A constant makes every lagged difference exactly 0: rounding may push d
// below 0, which must give 0, not NaN.
TEST(constant_signal_gives_zero_not_nan) {
  PitchFrontEndState state{};
  Feed(std::vector<float>(5 * kHop, 0.3f), &state);
  int bad = 0;
  for (float v : state.lag) bad += !(v >= 0.0f && v < 1e-3f);
  CHECK_MSG(bad == 0, "%d lag features negative, NaN or large", bad);
}

}  // namespace

CHECK_MAIN
