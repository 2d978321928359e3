// Complex spectra from the phase pairs: each pair's direction at its
// magnitude, and zero for a pair at the origin, where the comparisons with the
// reference (whose pairs stay away from it) never go. The overlap-add, band
// merge and every streaming layer are compared with the float64 reference
// frame by frame, and each kernel set with the scalar definition bit for bit
// in test_golden_chain.
#include <cmath>

#include "check.h"
#include "test_waveform_support.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

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

}  // namespace

CHECK_MAIN
