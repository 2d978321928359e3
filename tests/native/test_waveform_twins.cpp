// The waveform generator's vector layers against their scalar definitions,
// bit for bit, on values a stream of order-one activations never reaches:
// wide inputs to the element-wise helpers, exponent and sigmoid arguments
// beyond the +-88 clamp. Over a stream, through every reachable ring
// position, each kernel set's whole generator is compared with the scalar one
// in test_golden_chain, and the fast layers in test_fast_kernels.
#include <cstring>
#include <vector>

#include "check.h"
#include "test_waveform_support.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

TEST(element_wise_helpers_match) {
  Rng rng(check::Seed());
  constexpr int n = 64;
  std::vector<float> x = RandomFloats(n, 8.0f, rng);
  // Beyond the exponent's clamp in both directions, and at it.
  const float extremes[] = {-100.0f, -88.5f, -88.0f, -87.5f, 87.5f, 88.0f, 88.5f, 100.0f};
  std::memcpy(x.data(), extremes, sizeof extremes);
  const std::vector<float> a = RandomFloats(n, 4.0f, rng), b = RandomFloats(n, 4.0f, rng);
  std::vector<f16> halves(n);
  FillHalves(halves.data(), n, 60.0f, rng);
  std::vector<float> ys(n), yv(n);
  scalar::SiluCopy(x.data(), ys.data(), n), avx2::SiluCopy(x.data(), yv.data(), n);
  CHECK(SameFloats(ys.data(), yv.data(), n));
  ys = x, yv = x;
  scalar::AddInPlace(ys.data(), a.data(), n), avx2::AddInPlace(yv.data(), a.data(), n);
  CHECK(SameFloats(ys.data(), yv.data(), n));
  scalar::MeanOfThree(ys.data(), a.data(), b.data(), n), avx2::MeanOfThree(yv.data(), a.data(), b.data(), n);
  CHECK(SameFloats(ys.data(), yv.data(), n));
  scalar::AddBias(ys.data(), a.data(), halves.data(), n), avx2::AddBias(yv.data(), a.data(), halves.data(), n);
  CHECK(SameFloats(ys.data(), yv.data(), n));
  scalar::WidenHalves(halves.data(), ys.data(), n), avx2::WidenHalves(halves.data(), yv.data(), n);
  CHECK(SameFloats(ys.data(), yv.data(), n));
}

TEST(log_magnitudes_match_beyond_the_clamp) {
  Rng rng(check::Seed());
  auto model = NewBlock<WaveformGeneratorBlock>();
  FillHalves(&model->logmag_conv[0][0][0], sizeof model->logmag_conv / sizeof(f16), 0.1f, rng);
  FillHalves(model->logmag_bias, kSpectrumValues, 3.0f, rng);
  // Sums near and past +-88 for some outputs.
  const float far[] = {-95.0f, -88.0f, -87.0f, 87.0f, 88.0f, 95.0f};
  for (int o = 0; o < 6; ++o) model->logmag_bias[o] = ToHalf(far[o]);
  float history_s[6][kStage2Channels], history_v[6][kStage2Channels];
  FillFloats(&history_s[0][0], 6 * kStage2Channels, 1.0f, rng);
  std::memcpy(history_v, history_s, sizeof history_s);
  std::int32_t position_s = 4, position_v = 4;
  float magnitudes_s[kStage2Steps][kSpectrumValues], magnitudes_v[kStage2Steps][kSpectrumValues];
  for (int frame = 0; frame < 2; ++frame) {
    const std::vector<float> x = RandomFloats(kStage2Steps * kStage2Channels, 1.0f, rng);
    scalar::LogMagnitudes(model->logmag_conv, model->logmag_bias, x.data(), history_s, &position_s, magnitudes_s);
    avx2::LogMagnitudes(model->logmag_conv, model->logmag_bias, x.data(), history_v, &position_v, magnitudes_v);
    CHECK(SameBits(magnitudes_s, magnitudes_v, sizeof magnitudes_s));
    CHECK(SameBits(history_s, history_v, sizeof history_s));
    CHECK(position_s == 4 && position_v == 4);
  }
}

TEST(phase_gates_match_beyond_the_clamp) {
  Rng rng(check::Seed());
  alignas(32) float gi[3 * kPhaseHidden], gh[3 * kPhaseHidden], hs[kPhaseHidden], hv[kPhaseHidden];
  FillFloats(gi, 3 * kPhaseHidden, 6.0f, rng);
  FillFloats(gh, 3 * kPhaseHidden, 6.0f, rng);
  for (int c = 0; c < 3 * kPhaseHidden; c += 16) gi[c] = (c / 16) % 2 ? 120.0f : -120.0f;
  FillFloats(hs, kPhaseHidden, 1.0f, rng);
  std::memcpy(hv, hs, sizeof hs);
  scalar::PhaseGates(gi, gh, hs);
  avx2::PhaseGates(gi, gh, hv);
  CHECK(SameBits(hs, hv, sizeof hs));
}

}  // namespace

CHECK_MAIN
