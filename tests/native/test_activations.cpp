// The normalisation, the table exponential and the activations built on it
// against their formulas, past the clamps, and the phase pairs' spectra.
// (Each vector set equals the scalar definitions bit for bit: test_kernel_sets.)
#include <cmath>
#include <random>
#include <vector>

#include "check.h"
#include "engine/activations_scalar.h"
#include "engine/kernels.h"
#include "test_support.h"
#include "waveform/waveform_kernels.h"

using namespace test_support;

TEST(normalize_gives_zero_mean_unit_variance_and_zero_for_silence) {
  Rng rng(check::Seed());
  std::vector<float> x = RandomFloats(256, 5.0f, rng);
  for (float& v : x) v += 2.0f;
  avx2::Normalize(x.data(), 256);
  double sum = 0.0, squares = 0.0;
  for (float v : x) sum += v, squares += static_cast<double>(v) * v;
  CHECK_MSG(std::fabs(sum / 256) < 1e-6 && std::fabs(squares / 256 - 1.0) < 1e-5, "mean %g, E[x^2] %g", sum / 256,
            squares / 256);
  std::vector<float> silence(256, 0.0f);
  avx2::Normalize(silence.data(), 256);
  for (float v : silence) CHECK(v == 0.0f);
}

namespace {

// 2^(k/1024) (1 + r) from the table entry, in double, rounded once to single.
// Valid while the exponent field stays normal (v above about -87.34).
float ExpFormula(float v) {
  const float clamped = std::fmin(std::fmax(v, -88.0f), 88.0f);
  const long k = std::lrint(static_cast<double>(clamped * kExpScale));
  const double one_plus_r = static_cast<float>(static_cast<double>(clamped + 1.0f) - k * static_cast<double>(kExpStep));
  const long floor_k = k >= 0 ? k / 1024 : -((-k + 1023) / 1024);
  const double mantissa = g_exp_mantissa[k - floor_k * 1024];
  return static_cast<float>(std::ldexp(mantissa, static_cast<int>(floor_k)) * one_plus_r);
}

}  // namespace

TEST(exp_table_follows_its_formula_up_to_and_beyond_the_upper_clamp) {
  const float points[] = {0.0f,   1.0f,   -1.0f,  0.3466f, 10.0f, -10.0f, 50.5f,     -50.5f,
                          87.3f,  -87.3f, 87.99f, 88.0f,   88.01f, 90.0f, 1e30f, INFINITY};
  for (float v : points) CHECK_MSG(ExpTable(v) == ExpFormula(v), "v = %g: %g vs %g", v, ExpTable(v), ExpFormula(v));
  CHECK(ExpTable(88.0f) == ExpTable(1e30f) && std::isfinite(ExpTable(88.0f)));
  // Against the true exponential: v + 1 and k ln2/1024 are rounded in single
  // precision, so the relative error grows with |v|, to about 1e-5 at 80.
  for (float v = -80.0f; v <= 80.0f; v += 0.37f)
    CHECK_MSG(std::fabs(ExpTable(v) / std::exp(static_cast<double>(v)) - 1.0) < 2e-7 * (1.0 + std::fabs(v)), "v = %g",
              v);
}

TEST(exp_table_below_minus_87_34_keeps_only_the_table_fraction) {
  // There the exponent field is zero: the bits form the subnormal
  // (T - 1) 2^-126, times 1 + r. A sigmoid or tanh never sees the difference
  // from 2^(k/1024)(1 + r): both are far below half an ulp of 1.
  for (float v : {-87.34f, -87.5f, -88.0f, -88.01f, -100.0f, -1e30f, -INFINITY}) {
    const float clamped = std::fmax(v, -88.0f);
    const long k = std::lrint(static_cast<double>(clamped * kExpScale));
    const double one_plus_r =
        static_cast<float>(static_cast<double>(clamped + 1.0f) - k * static_cast<double>(kExpStep));
    const double fraction = g_exp_mantissa[k + 127 * 1024] - 1.0;
    const float expected = static_cast<float>(std::ldexp(fraction, -126) * one_plus_r);
    CHECK_MSG(ExpTable(v) == expected, "v = %g: %g vs %g", v, ExpTable(v), expected);
    CHECK(1.0f + ExpTable(v) == 1.0f && 1.0f + ExpFormula(clamped) == 1.0f);
  }
}

TEST(sigmoid_and_recurrent_tanh_stay_within_the_reciprocal_estimate) {
  // The approximate reciprocal is good to 1.5 * 2^-12 relative; beyond ±88
  // the clamped exponential still gives the saturated values.
  // The exponential's own error (up to about 1e-5 relative at |x| = 88) adds a little.
  const double bound = 1.5 / 4096 + 3e-5;
  for (float x = -120.0f; x <= 120.0f; x += 0.173f) {
    const double sigmoid = 1.0 / (1.0 + std::exp(-static_cast<double>(x)));
    CHECK_MSG(std::fabs(Sigmoid(x) - sigmoid) <= bound * sigmoid + 1e-30, "sigmoid(%g) = %g", x, Sigmoid(x));
    CHECK_MSG(std::fabs(RecurrentTanh(x) - std::tanh(static_cast<double>(x))) <= 2 * bound, "tanh(%g) = %g", x,
              RecurrentTanh(x));
  }
  CHECK(Sigmoid(88.0f) == Sigmoid(1e6f) && Sigmoid(-88.0f) == Sigmoid(-1e6f));
}

// Complex spectra from the phase pairs: each pair's direction at its
// magnitude, and zero for a pair at the origin, where the comparisons with the
// float64 reference (whose pairs stay away from it) never go.
TEST(phase_pairs_give_directions_and_zero_pairs_give_zero) {
  Rng rng(check::Seed());
  auto state = NewBlock<SynthesisState>();
  FillFloats(&state->phase_states[0][0], sizeof state->phase_states / sizeof(float), 1.0f, rng);
  for (auto& row : state->magnitudes)
    for (float& m : row) m = 0.5f + std::uniform_real_distribution<float>(0.0f, 2.0f)(rng);
  for (int s = 0; s < kStage2Steps; ++s) state->phase_states[s][2 * s] = state->phase_states[s][2 * s + 1] = 0.0f;
  state->magnitudes[0][0] = 1e30f;  // a (0, 0) pair stays 0 whatever the magnitude
  avx2::ComplexSpectra(state.get());
  for (int s = 0; s < kStage2Steps; ++s)
    for (int k = 0; k < kSpectrumValues; ++k) {
      const float re = state->spectra[s][k][0], im = state->spectra[s][k][1];
      if (k == s) {
        CHECK_MSG(re == 0.0f && im == 0.0f, "sub-step %d bin %d", s, k);
        continue;
      }
      const float pr = state->phase_states[s][2 * k], pi = state->phase_states[s][2 * k + 1];
      const float m = state->magnitudes[s][k];
      // Same direction as the pair, length m up to the 1e-6 offset.
      CHECK_MSG(std::fabs(std::hypot(re, im) - m) < 1e-5f * m + 2e-6f * m / std::hypot(pr, pi),
                "sub-step %d bin %d: length %g, magnitude %g", s, k, std::hypot(re, im), m);
      CHECK_MSG(std::fabs(re * pi - im * pr) < 1e-5f * m * std::hypot(pr, pi), "sub-step %d bin %d turned", s, k);
    }
}

CHECK_MAIN
