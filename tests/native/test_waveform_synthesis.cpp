// The spectral synthesis' pieces: the overlap-add's alignment and level, the
// phase directions, and the band merge's tap order and history.
#include <cmath>
#include <cstring>
#include <vector>

#include "check.h"
#include "engine/fft.h"
#include "test_waveform_support.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

// A band whose every inverse transform is the constant v: bin 0 = 16 v.
TEST(constant_frames_settle_at_four_thirds) {
  auto model = NewBlock<WaveformGeneratorBlock>();
  StoreWaveformTables(model.get());
  const float v = 0.75f;
  float spectrum[2 * kBandBins] = {16.0f * v, 5.0f};  // bin 0's imaginary part plays no part
  spectrum[2 * (kBandBins - 1) + 1] = -3.0f;            // nor does bin 8's
  alignas(32) float frame[kFftLength], buffer[kFftLength] = {}, out[kFftHop];
  InverseRealFft16(spectrum, frame, 1.0f / kFftLength);
  for (float sample : frame) CHECK_MSG(std::fabs(sample - v) < 1e-7f, "inverse transform gave %g", sample);
  for (int hop = 0; hop < 8; ++hop) {
    avx2::OverlapAdd(frame, model->window_table, model->overlap_scale_table, buffer, out);
    for (int i = 0; i < kFftHop; ++i) {
      const float before_gain = out[i] / kBandGain;
      // The first hop emits the newest frame's first four windowed samples.
      const float expected = hop == 0 ? model->window[i] * v * (2.0f / 3.0f)
                             : hop >= 3 ? 4.0f * v / 3.0f
                                        : before_gain;
      CHECK_MSG(std::fabs(before_gain - expected) <= 1e-6f * std::fabs(expected), "hop %d sample %d: %.9g, not %.9g",
                hop, i, before_gain, expected);
    }
  }
}

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

// One tap of one band set: the output is that band, zero-stuffed and delayed
// by 62 - tap positions, the delay reaching into the previous frame.
void CheckSingleTap(int tap, int band, Rng& rng) {
  auto model = NewBlock<WaveformGeneratorBlock>();
  model->band_filter[tap][band] = ToHalf(1.0f);
  auto state = NewBlock<SynthesisState>();
  float previous[kBands][kBandSamples], bands[kBands][kBandSamples], output[kOutHop];
  FillFloats(&previous[0][0], kBands * kBandSamples, 1.0f, rng);
  FillFloats(&bands[0][0], kBands * kBandSamples, 1.0f, rng);
  avx2::BandMerge(model->band_filter, previous, state->merge_history, &state->merge_position, output);
  avx2::BandMerge(model->band_filter, bands, state->merge_history, &state->merge_position, output);
  int wrong = 0;
  for (int t = 0; t < kOutHop; ++t) {
    const int at = t - (kMergePast - tap);  // position in this frame; negative: the previous frame
    const int position = at < 0 ? at + kOutHop : at;
    const float(*source)[kBandSamples] = at < 0 ? previous : bands;
    const float expected = position % kBands == 0 ? source[band][position / kBands] : 0.0f;
    wrong += output[t] != expected;
  }
  CHECK_MSG(wrong == 0, "tap %d band %d: %d outputs wrong", tap, band, wrong);
}

TEST(band_filter_taps_meet_the_right_positions) {
  Rng rng(check::Seed());
  CheckSingleTap(kMergeTaps - 1, 2, rng);  // the newest tap: no delay
  CheckSingleTap(0, 1, rng);               // the oldest: 62 positions back, through the ring
  CheckSingleTap(25, 3, rng);
}

}  // namespace

CHECK_MAIN
