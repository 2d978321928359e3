// Streaming behaviour of the waveform generator's layers: where a dilated
// convolution's taps land and what its ring keeps, the residual stacks'
// identity and look-back, and the upsamplers' carry rings against a
// whole-sequence transposed convolution.
#include <cmath>
#include <cstring>
#include <vector>

#include "check.h"
#include "test_waveform_support.h"
#include "waveform/dilated_causal_conv.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

// TapPanel32 position of weight (tap k, output o, input i) of an N x N tap.
int TapPanelIndex(int k, int o, int i, int outputs, int inputs) {
  return k * outputs * inputs + (o / kPanel) * inputs * kPanel + i * kPanel + o % kPanel;
}

TEST(impulse_reaches_one_step_per_tap) {
  constexpr int N = 128, T = 5, K = 3, D = 5, kChannel = 37;
  auto weights = NewBlock<DilatedConvWeights<N, K>>();
  // Tap k passes each channel through with gain 2^k, so the value names the tap.
  for (int k = 0; k < K; ++k)
    for (int c = 0; c < N; ++c) weights->weight[TapPanelIndex(k, c, c, N, N)] = ToHalf(static_cast<float>(1 << k));
  auto state = NewBlock<DilatedCausalConvState<N, T, kDilatedHistory<K, D>>>();
  std::vector<float> input(T * N);
  for (int frame = 0; frame < 4; ++frame) {
    std::fill(input.begin(), input.end(), 0.0f);
    if (frame == 0) input[kChannel] = 1.0f;
    avx2::DilatedCausalConv<N, T, K, D>(*weights, input.data(), state.get());
    for (int t = 0; t < T; ++t) {
      const int step = frame * T + t;
      const float expected = step == 0 ? 4.0f : step == 5 ? 2.0f : step == 10 ? 1.0f : 0.0f;
      for (int o = 0; o < N; ++o)
        CHECK_MSG(state->output[t][o] == (o == kChannel ? expected : 0.0f), "step %d channel %d: %g", step, o,
                  state->output[t][o]);
    }
  }
}

// After each frame the ring, read from its position, is the last H input
// steps of the stream (zeros before its start), whether H is below T or not.
template <int N, int T, int K, int D>
void CheckRingKeepsLastSteps(Rng& rng) {
  constexpr int H = kDilatedHistory<K, D>;
  auto weights = NewBlock<DilatedConvWeights<N, K>>();
  auto state = NewBlock<DilatedCausalConvState<N, T, H>>();
  std::vector<float> stream;
  for (int frame = 0; frame < 2 * H / T + 3; ++frame) {
    const std::vector<float> input = RandomFloats(T * N, 1.0f, rng);
    stream.insert(stream.end(), input.begin(), input.end());
    avx2::DilatedCausalConv<N, T, K, D>(*weights, input.data(), state.get());
    const int steps = static_cast<int>(stream.size()) / N;
    for (int j = 0; j < H; ++j) {
      const int step = steps - H + j;
      const std::vector<float> zeros(N, 0.0f);
      const float* expected = step < 0 ? zeros.data() : stream.data() + step * N;
      CHECK_MSG(SameBits(state->history[(state->position + j) % H], expected, N * sizeof(float)),
                "N %d T %d H %d frame %d ring step %d", N, T, H, frame, j);
    }
  }
}

TEST(ring_keeps_the_last_steps) {
  Rng rng(check::Seed());
  CheckRingKeepsLastSteps<128, 5, 11, 5>(rng);  // H 50 > T
  CheckRingKeepsLastSteps<64, 15, 7, 3>(rng);   // H 18 > T
  CheckRingKeepsLastSteps<128, 5, 3, 1>(rng);   // H 2 < T
  CheckRingKeepsLastSteps<64, 15, 3, 5>(rng);   // H 10 < T
}

template <int N, int T>
void CheckSilentStack(Rng& rng) {
  auto weights = NewBlock<ResidualStackWeights<N>>();
  auto state = NewBlock<ResidualStackState<N, T>>();
  for (int frame = 0; frame < 2; ++frame) {
    const std::vector<float> x = RandomFloats(N * T, 3.0f, rng);
    const std::vector<float> before = x;
    const float* out = avx2::ResidualStack(*weights, x.data(), state.get());
    int wrong = 0;
    for (int i = 0; i < N * T; ++i) wrong += out[i] != ((x[i] + x[i]) + x[i]) * 0.33333334f;
    CHECK_MSG(wrong == 0, "N %d: %d values differ from the mean of three copies", N, wrong);
    CHECK(SameBits(x.data(), before.data(), x.size() * sizeof(float)));
  }
}

TEST(stack_with_zero_weights_returns_its_input) {
  Rng rng(check::Seed());
  CheckSilentStack<kStage1Channels, kStage1Steps>(rng);
  CheckSilentStack<kStage2Channels, kStage2Steps>(rng);
}

// With a constant input the result settles once the zeros before the stream
// are out of reach: the kernel-11 block looks back 120 steps.
template <int N, int T>
void CheckLookBack(int settled_frame, Rng& rng) {
  auto weights = NewBlock<ResidualStackWeights<N>>();
  RandomizeStack(weights.get(), 0.8f, rng);
  auto state = NewBlock<ResidualStackState<N, T>>();
  const std::vector<float> step = RandomFloats(N, 1.0f, rng);
  std::vector<float> x;
  for (int t = 0; t < T; ++t) x.insert(x.end(), step.begin(), step.end());
  std::vector<std::vector<float>> outputs;
  for (int frame = 0; frame < settled_frame + 4; ++frame) {
    const float* out = avx2::ResidualStack(*weights, x.data(), state.get());
    outputs.emplace_back(out, out + N * T);
  }
  const std::size_t bytes = N * T * sizeof(float);
  CHECK_MSG(!SameBits(outputs[settled_frame - 1].data(), outputs[settled_frame].data(), bytes),
            "N %d: frame %d already settled", N, settled_frame - 1);
  for (int frame = settled_frame + 1; frame < settled_frame + 4; ++frame)
    CHECK_MSG(SameBits(outputs[settled_frame].data(), outputs[frame].data(), bytes), "N %d: frame %d moved", N,
              frame);
}

TEST(stack_settles_after_its_look_back) {
  Rng rng(check::Seed());
  CheckLookBack<kStage1Channels, kStage1Steps>(24, rng);  // 25th frame: 24 * 5 >= 120
  CheckLookBack<kStage2Channels, kStage2Steps>(8, rng);   // 9th frame: 8 * 15 >= 120
}

// Frames through the streaming layer against a transposed convolution of the
// whole input sequence (double precision scatter-add): input step n adds tap
// t to output step stride * n + t. The ring starts at a non-zero index and
// must end every frame where it started.
template <int kIn, int kOut, int kTaps, int kStride, int kSteps, typename Layer>
void CheckAgainstScatterAdd(Layer layer, Rng& rng) {
  constexpr int kFrames = 4, kOutSteps = kSteps * kStride;
  std::vector<f16> weight(kTaps * kOut * kIn), bias(kOut);
  FillHalves(weight.data(), weight.size(), 0.2f, rng);
  FillHalves(bias.data(), bias.size(), 0.5f, rng);
  const std::vector<float> x = RandomFloats(kFrames * kSteps * kIn, 1.0f, rng);

  std::vector<double> expected(kFrames * kOutSteps * kOut, 0.0);
  for (int m = 0; m < kFrames * kOutSteps; ++m)
    for (int o = 0; o < kOut; ++o) expected[m * kOut + o] = HalfToFloat(bias[o]);
  for (int n = 0; n < kFrames * kSteps; ++n)
    for (int t = 0; t < kTaps; ++t) {
      const int m = kStride * n + t;
      if (m >= kFrames * kOutSteps) continue;  // waits for a frame never given
      for (int o = 0; o < kOut; ++o)
        for (int i = 0; i < kIn; ++i)
          expected[m * kOut + o] +=
              static_cast<double>(HalfToFloat(weight[TapPanelIndex(t, o, i, kOut, kIn)])) * x[n * kIn + i];
    }

  std::vector<float> carry(kStride * kOut, 0.0f), out(kOutSteps * kOut);
  std::int32_t index = 2;
  double worst = 0.0;
  for (int f = 0; f < kFrames; ++f) {
    layer(weight.data(), bias.data(), x.data() + f * kSteps * kIn, reinterpret_cast<float(*)[kOut]>(carry.data()),
          &index, out.data());
    CHECK_MSG(index == 2, "stride %d frame %d: index %d", kStride, f, index);
    for (int j = 0; j < kOutSteps * kOut; ++j)
      worst = std::fmax(worst, std::fabs(out[j] - expected[f * kOutSteps * kOut + j]));
  }
  CHECK_MSG(worst < 1e-5, "stride %d: max error %g", kStride, worst);
}

TEST(upsamplers_match_a_whole_sequence_transposed_convolution) {
  Rng rng(check::Seed());
  CheckAgainstScatterAdd<kChannels, kStage1Channels, 10, 5, 1>(avx2::UpsampleFirst, rng);
  CheckAgainstScatterAdd<kStage1Channels, kStage2Channels, 6, 3, kStage1Steps>(avx2::UpsampleSecond, rng);
}

// Across whole frames the sub-step rings come back to their index, the merge
// ring advances by 240 mod 62 and the convolution rings by their T.
TEST(generator_rings_advance_one_frame_per_call) {
  Rng rng(check::Seed());
  auto model = RandomModel(check::Seed());
  auto context = NewBlock<WaveformContext>();
  FrameInputs inputs;
  for (int frame = 1; frame <= 5; ++frame) {
    inputs.Randomize(rng);
    avx2::GenerateWaveform(*model, inputs.table, context.get());
    CHECK(context->upsample1_index == 0 && context->upsample2_index == 0);
    CHECK(context->synthesis.logmag_position == 0);
    CHECK(context->synthesis.merge_position == (frame * kOutHop) % kMergePast);
    CHECK(context->stack1.k11.conv4.position == (frame * kStage1Steps) % 50);
    CHECK(context->stack2.k7.conv2.position == (frame * kStage2Steps) % 18);
    CHECK(context->pre_conv.position == frame % 6 && context->blocks[3].position == frame % 16);
  }
}

}  // namespace

CHECK_MAIN
