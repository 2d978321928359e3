// The pitch decoder on crafted scores: bin 0 kept apart, tie rules, the octave
// gates at windows 96/97 and 240/241; the front end's running-energy rounding
// corner and its inline hypotf (the rest of it: the float64 reference).
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "pitch/pitch_decoder.h"
#include "pitch/spectral_front_end.h"
#include "tests/native/check.h"

namespace {

using corvina::DecodePitch;
using corvina::PitchDecision;
constexpr int kBins = corvina::kPitchBins;

void Fill(float* scores, int from, int to, float value) {
  for (int i = from; i < to && i < kBins; ++i) scores[i] = value;
}

TEST(all_mass_on_bin_zero_still_picks_a_real_bin) {
  std::mt19937 rng(check::Seed());
  std::normal_distribution<float> normal(0.0f, 1.0f);
  float scores[kBins];
  for (float& s : scores) s = normal(rng);
  scores[0] = 30.0f;
  const PitchDecision d = DecodePitch(scores);
  CHECK_MSG(d.bin >= 1 && d.bin < kBins, "bin %d", d.bin);
  CHECK_MSG(d.window >= 1 && d.bin >= d.window && d.bin < d.window + corvina::kPitchWindow, "window %d, bin %d",
            d.window, d.bin);
  CHECK_MSG(std::fabs(d.p0 - 1.0f) < 1e-6f, "p0 %g", d.p0);
}

// Every window from 1 on holds the same mass, every bin the same probability.
TEST(uniform_scores_choose_the_first_window_and_bin) {
  float scores[kBins] = {};
  const PitchDecision d = DecodePitch(scores);
  CHECK_MSG(d.window == 1 && d.bin == 1, "window %d, bin %d", d.window, d.bin);
  CHECK_MSG(std::fabs(d.p0 - 1.0f / kBins) < 1e-8f, "p0 %g", d.p0);
  CHECK(d.lower_ratio == 0.0f);
  CHECK_MSG(std::fabs(d.upper_ratio - 1.0f) < 1e-6f, "upper ratio %g", d.upper_ratio);
}

// Two equal plateaus, the rest underflowing to probability 0 so that both
// window sums are exact: the lower window and its lowest bin win.
TEST(exact_ties_go_to_the_lowest_window_and_bin) {
  float scores[kBins];
  Fill(scores, 0, kBins, -200.0f);
  Fill(scores, 100, 148, 0.0f);
  Fill(scores, 200, 248, 0.0f);
  PitchDecision d = DecodePitch(scores);
  CHECK_MSG(d.window == 100 && d.bin == 100, "window %d, bin %d", d.window, d.bin);

  Fill(scores, 200, 248, -200.0f);
  scores[130] = scores[120] = 5.0f;
  d = DecodePitch(scores);
  CHECK_MSG(d.window == 100 && d.bin == 120, "window %d, bin %d", d.window, d.bin);
}

// A plateau at j with plateaus e^-1 as probable one octave below and above:
// each ratio is e^-1 when its gate is open and 0 when it is shut.
TEST(octave_ratios_and_their_gates) {
  const struct {
    int window;
    bool lower_open, upper_open;
  } cases[] = {{96, false, true}, {97, true, true}, {240, true, true}, {241, true, false}};
  const float expected = std::exp(-1.0f);
  for (const auto& c : cases) {
    float scores[kBins];
    Fill(scores, 0, kBins, -30.0f);
    Fill(scores, c.window - 96, c.window - 48, -1.0f);
    Fill(scores, c.window + 96, c.window + 144, -1.0f);
    Fill(scores, c.window, c.window + 48, 0.0f);
    const PitchDecision d = DecodePitch(scores);
    CHECK_MSG(d.window == c.window && d.bin == c.window, "case %d: window %d, bin %d", c.window, d.window, d.bin);
    const float lower = c.lower_open ? expected : 0.0f, upper = c.upper_open ? expected : 0.0f;
    CHECK_MSG(std::fabs(d.lower_ratio - lower) <= 2e-5f * lower, "case %d: lower %g", c.window, d.lower_ratio);
    CHECK_MSG(std::fabs(d.upper_ratio - upper) <= 2e-5f * upper, "case %d: upper %g", c.window, d.upper_ratio);
  }
}

// A constant makes every lagged difference exactly 0: rounding may push d
// below 0, which must give 0, not NaN.
TEST(constant_signal_gives_zero_lag_features_not_nan) {
  corvina::PitchFrontEndState state{};
  const std::vector<float> constant(5 * CORVINA_IN_HOP_LENGTH, 0.3f);
  for (int f = 0; f < 5; ++f) corvina::SpectralFrontEnd(&constant[f * CORVINA_IN_HOP_LENGTH], &state);
  int bad = 0;
  for (float v : state.lag) bad += !(v >= 0.0f && v < 1e-3f);
  CHECK_MSG(bad == 0, "%d lag features negative, NaN or large", bad);
}

// The front end's inline hypotf against the library's, bit for bit: pairs
// over the whole exponent range (subnormals, squares that overflow float),
// zeros, infinities and NaNs.
TEST(inline_hypot_is_the_library_hypotf) {
  std::mt19937 rng(check::Seed());
  std::uniform_int_distribution<std::uint32_t> bits;
  const float specials[] = {0.0f, -0.0f, 1e-45f, 3e38f, INFINITY, -INFINITY, NAN, 1.0f};
  int differ = 0;
  for (int i = 0; i < 2000000; ++i) {
    const std::uint32_t a = bits(rng), b = bits(rng);
    float x, y;
    std::memcpy(&x, &a, sizeof x);
    std::memcpy(&y, &b, sizeof y);
    if (i < 64) x = specials[i % 8], y = specials[i / 8];
    const float mine = corvina::Hypot(x, y), library = std::hypot(x, y);
    differ += std::memcmp(&mine, &library, sizeof mine) != 0;
  }
  CHECK_MSG(differ == 0, "%d pairs differ", differ);
}

}  // namespace

CHECK_MAIN
