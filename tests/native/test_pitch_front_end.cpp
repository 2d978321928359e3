// The pitch front end on signals with known answers, and its FFT forms
// against direct sums in double precision.
#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "pitch/spectral_front_end.h"
#include "tests/native/check.h"

namespace {

using corvina::PitchFrontEndState;
constexpr int kHop = CORVINA_IN_HOP_LENGTH;
constexpr int kBins = corvina::kSpectralBins;
constexpr double kPi = 3.14159265358979323846;

// Feeds `signal` frame by frame into a fresh state.
void Feed(const std::vector<float>& signal, PitchFrontEndState* state) {
  for (std::size_t start = 0; start + kHop <= signal.size(); start += kHop)
    corvina::SpectralFrontEnd(signal.data() + start, state);
}

std::vector<float> RandomSignal(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> normal(0.0f, 0.3f);
  std::vector<float> x(n);
  for (float& v : x) v = normal(rng);
  return x;
}

TEST(silence_gives_floor_values) {
  PitchFrontEndState state{};
  Feed(std::vector<float>(5 * kHop, 0.0f), &state);
  int wrong = 0;
  for (int k = 0; k < kBins; ++k) wrong += state.spectral[k] != -5.0f;
  for (int k = kBins; k < 3 * kBins; ++k) wrong += state.spectral[k] != 0.0f;
  for (float v : state.lag) wrong += v != 0.0f;
  CHECK_MSG(wrong == 0, "%d features differ from (-5, 0, 0)", wrong);
  CHECK(state.loudness == -2.5f);
}

TEST(first_frame_has_no_phase_advance) {
  PitchFrontEndState state{};
  Feed(RandomSignal(kHop, check::Seed()), &state);
  int nonzero = 0;
  for (int k = kBins; k < 3 * kBins; ++k) nonzero += state.spectral[k] != 0.0f;
  CHECK_MSG(nonzero == 0, "%d phase features are not 0", nonzero);
  CHECK(state.spectral[0] > -5.0f);
}

// A cosine on bin k of the 560-point grid: once the history is full, bin k
// holds 280 A and its phase turns by 2 pi k 160 / 560 per frame.
TEST(tone_on_an_exact_bin) {
  const double amplitude = 0.5;
  for (int k : {3, 7, 20, 63}) {
    std::vector<float> signal(6 * kHop);
    for (std::size_t n = 0; n < signal.size(); ++n)
      signal[n] = static_cast<float>(amplitude * std::cos(2.0 * kPi * k * n / 560.0 + 0.4));
    PitchFrontEndState state{};
    Feed(signal, &state);
    const double expected = std::log10(280.0 * amplitude);
    CHECK_MSG(std::fabs(state.spectral[k] - expected) < 1e-5, "bin %d: %g, expected %g", k, state.spectral[k],
              expected);
    for (int other = 0; other < kBins; ++other)
      if (other != k) CHECK_MSG(state.spectral[other] < expected - 3.0, "bin %d leaks into %d", k, other);
    const double turn = 2.0 * kPi * k * kHop / 560.0;
    CHECK_MSG(std::fabs(state.spectral[kBins + k] - std::cos(turn)) < 1e-4 &&
                  std::fabs(state.spectral[2 * kBins + k] - std::sin(turn)) < 1e-4,
              "bin %d: advance (%g, %g), expected (%g, %g)", k, state.spectral[kBins + k],
              state.spectral[2 * kBins + k], std::cos(turn), std::sin(turn));
  }
}

// Period P: the lagged window repeats at P and 2P, and differs elsewhere.
TEST(periodic_signal_has_lag_minima_at_its_period) {
  for (int period : {57, 100}) {
    std::vector<float> signal(8 * kHop);
    for (std::size_t n = 0; n < signal.size(); ++n)
      signal[n] = static_cast<float>(std::sin(2.0 * kPi * n / period) + 0.5 * std::sin(6.0 * kPi * n / period + 1.0));
    PitchFrontEndState state{};
    Feed(signal, &state);
    for (int multiple = period; multiple <= corvina::kLags; multiple += period)
      CHECK_MSG(state.lag[multiple - 1] < 2e-3f, "period %d, lag %d: %g", period, multiple, state.lag[multiple - 1]);
    float lowest_elsewhere = 1e9f;
    for (int lag = 1; lag <= corvina::kLags; ++lag) {
      const int from_multiple = std::min(lag % period, period - lag % period);
      if (from_multiple >= 5) lowest_elsewhere = std::min(lowest_elsewhere, state.lag[lag - 1]);
    }
    CHECK_MSG(lowest_elsewhere > 0.1f, "period %d: lowest lag feature off the period %g", period, lowest_elsewhere);
  }
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
