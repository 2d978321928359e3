// The waveform generator's vector build against its scalar definition, bit
// for bit: every dilated convolution shape, the element-wise helpers, both
// upsamplers, the synthesis pieces (exponent and sigmoid arguments beyond the
// +-88 clamp included), and whole generators over a long stream, compared
// context byte for context byte.
#include <cstdio>
#include <cstring>
#include <vector>

#include "check.h"
#include "test_waveform_support.h"
#include "waveform/dilated_causal_conv.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

template <typename State>
void RandomizeRing(State* state, int length, Rng& rng) {
  FillFloats(&state->history[0][0], sizeof state->history / sizeof(float), 1.0f, rng);
  state->position = std::uniform_int_distribution<int>(0, length - 1)(rng);
}

template <int N, int T, int K, int D>
void CheckDilatedConv(Rng& rng) {
  constexpr int H = kDilatedHistory<K, D>;
  using State = DilatedCausalConvState<N, T, H>;
  auto weights = NewBlock<DilatedConvWeights<N, K>>();
  FillMatrix(weights->weight, K * N, 1.0f, rng);
  FillHalves(weights->bias, N, 0.5f, rng);
  auto vector_state = NewBlock<State>(), scalar_state = NewBlock<State>();
  RandomizeRing(scalar_state.get(), H, rng);
  std::memcpy(vector_state.get(), scalar_state.get(), sizeof(State));
  for (int frame = 0; frame < 3; ++frame) {
    const std::vector<float> input = RandomFloats(T * N, 2.0f, rng);
    scalar::DilatedCausalConv<N, T, K, D>(*weights, input.data(), scalar_state.get());
    avx2::DilatedCausalConv<N, T, K, D>(*weights, input.data(), vector_state.get());
    CHECK_MSG(SameBits(scalar_state.get(), vector_state.get(), sizeof(State)), "N %d T %d K %d D %d frame %d", N,
              T, K, D, frame);
  }
}

TEST(dilated_convolutions_match) {
  Rng rng(check::Seed());
#define CHECK_SHAPE(N, T, K, D) CheckDilatedConv<N, T, K, D>(rng);
  CORVINA_FOR_EACH_DILATED_CONV(CHECK_SHAPE, 128, 5)
  CORVINA_FOR_EACH_DILATED_CONV(CHECK_SHAPE, 64, 15)
#undef CHECK_SHAPE
}

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

  scalar::SiluCopy(x.data(), ys.data(), n);
  avx2::SiluCopy(x.data(), yv.data(), n);
  CHECK(SameBits(ys.data(), yv.data(), n * sizeof(float)));

  ys = x, yv = x;
  scalar::AddInPlace(ys.data(), a.data(), n);
  avx2::AddInPlace(yv.data(), a.data(), n);
  CHECK(SameBits(ys.data(), yv.data(), n * sizeof(float)));

  scalar::MeanOfThree(ys.data(), a.data(), b.data(), n);
  avx2::MeanOfThree(yv.data(), a.data(), b.data(), n);
  CHECK(SameBits(ys.data(), yv.data(), n * sizeof(float)));

  scalar::AddBias(ys.data(), a.data(), halves.data(), n);
  avx2::AddBias(yv.data(), a.data(), halves.data(), n);
  CHECK(SameBits(ys.data(), yv.data(), n * sizeof(float)));

  scalar::WidenHalves(halves.data(), ys.data(), n);
  avx2::WidenHalves(halves.data(), yv.data(), n);
  CHECK(SameBits(ys.data(), yv.data(), n * sizeof(float)));
}

template <int kIn, int kOut, int kTaps, int kStride, int kSteps, typename Layer>
void CheckUpsampler(Layer scalar_layer, Layer vector_layer, Rng& rng) {
  std::vector<f16> weight(kTaps * kOut * kIn), bias(kOut);
  FillHalves(weight.data(), weight.size(), 0.2f, rng);
  FillHalves(bias.data(), bias.size(), 0.5f, rng);
  std::vector<float> carry_s = RandomFloats(kStride * kOut, 1.0f, rng), carry_v = carry_s;
  std::int32_t index_s = kStride - 1, index_v = index_s;
  std::vector<float> out_s(kSteps * kStride * kOut), out_v(out_s.size());
  for (int frame = 0; frame < 3; ++frame) {
    const std::vector<float> x = RandomFloats(kSteps * kIn, 2.0f, rng);
    using Carry = float(*)[kOut];
    scalar_layer(weight.data(), bias.data(), x.data(), reinterpret_cast<Carry>(carry_s.data()), &index_s,
                 out_s.data());
    vector_layer(weight.data(), bias.data(), x.data(), reinterpret_cast<Carry>(carry_v.data()), &index_v,
                 out_v.data());
    CHECK_MSG(SameBits(out_s.data(), out_v.data(), out_s.size() * sizeof(float)), "stride %d frame %d", kStride, frame);
    CHECK_MSG(SameBits(carry_s.data(), carry_v.data(), carry_s.size() * sizeof(float)), "stride %d", kStride);
    CHECK(index_s == index_v);
  }
}

TEST(upsamplers_match) {
  Rng rng(check::Seed());
  CheckUpsampler<kChannels, kStage1Channels, 10, 5, 1>(scalar::UpsampleFirst, avx2::UpsampleFirst, rng);
  CheckUpsampler<kStage1Channels, kStage2Channels, 6, 3, kStage1Steps>(scalar::UpsampleSecond,
                                                                       avx2::UpsampleSecond, rng);
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

TEST(overlap_add_and_band_merge_match) {
  Rng rng(check::Seed());
  auto model = NewBlock<WaveformGeneratorBlock>();
  StoreWaveformTables(model.get());
  FillHalves(&model->band_filter[0][0], kMergeTaps * kBands, 1.0f, rng);
  alignas(32) float buffer_s[16], buffer_v[16], out_s[4], out_v[4];
  FillFloats(buffer_s, 16, 1.0f, rng);
  std::memcpy(buffer_v, buffer_s, sizeof buffer_s);
  for (int hop = 0; hop < 6; ++hop) {
    alignas(32) float frame[16];
    FillFloats(frame, 16, 1.0f, rng);
    scalar::OverlapAdd(frame, model->window_table, model->overlap_scale_table, buffer_s, out_s);
    avx2::OverlapAdd(frame, model->window_table, model->overlap_scale_table, buffer_v, out_v);
    CHECK(SameBits(buffer_s, buffer_v, sizeof buffer_s) && SameBits(out_s, out_v, sizeof out_s));
  }

  float history_s[kMergePast][kBands], history_v[kMergePast][kBands];
  FillFloats(&history_s[0][0], kMergePast * kBands, 1.0f, rng);
  std::memcpy(history_v, history_s, sizeof history_s);
  std::int32_t position_s = 61, position_v = 61;
  float output_s[kOutHop], output_v[kOutHop];
  for (int frame = 0; frame < 3; ++frame) {
    float bands[kBands][kBandSamples];
    FillFloats(&bands[0][0], kBands * kBandSamples, 2.0f, rng);
    scalar::BandMerge(model->band_filter, bands, history_s, &position_s, output_s);
    avx2::BandMerge(model->band_filter, bands, history_v, &position_v, output_v);
    CHECK(SameBits(output_s, output_v, sizeof output_s));
    CHECK(SameBits(history_s, history_v, sizeof history_s) && position_s == position_v);
  }
}

// Long enough for every ring to wrap and every history to fill (the stage-1
// stack reaches 24 frames back).
TEST(whole_generators_match_over_a_stream) {
  constexpr int kFrames = 40;
  Rng rng(check::Seed());
  auto model = RandomModel(check::Seed());
  auto scalar_context = NewBlock<WaveformContext>(), vector_context = NewBlock<WaveformContext>();
  FrameInputs inputs;
  int differing_frames = 0;
  double energy = 0.0;
  for (int frame = 0; frame < kFrames; ++frame) {
    inputs.Randomize(rng);
    const float* s = scalar::GenerateWaveform(*model, inputs.table, scalar_context.get());
    const float* v = avx2::GenerateWaveform(*model, inputs.table, vector_context.get());
    if (!SameBits(s, v, kOutHop * sizeof(float))) ++differing_frames;
    for (int t = 0; t < kOutHop; ++t) energy += static_cast<double>(v[t]) * v[t];
  }
  CHECK_MSG(differing_frames == 0, "%d of %d frames differ", differing_frames, kFrames);
  CHECK(SameBits(scalar_context.get(), vector_context.get(), sizeof(WaveformContext)));
  // The comparison means something only if the stream is alive and finite.
  const double rms = std::sqrt(energy / (kFrames * kOutHop));
  CHECK_MSG(std::isfinite(rms) && rms > 1e-3 && rms < 1e3, "output RMS %g", rms);
}

}  // namespace

CHECK_MAIN
