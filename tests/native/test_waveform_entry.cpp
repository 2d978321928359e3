// The exported frame function writes exactly 240 samples, the caller's
// arrays may overlap, and a steady-state frame allocates nothing of its own
// (only the FFT library's working buffers). What it computes is compared with
// the scalar definition on every kernel set in test_golden_chain.
#include <cstdio>
#include <cstdlib>  // the C library's declarations before the counting ones
#include <cstring>
#include <vector>

#include "alloc_counter.h"
#include "check.h"
#include "engine/corvina.h"
#include "engine/fft.h"
#include "test_waveform_support.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

const CorvinaWaveformGenerator* Api(const WaveformGeneratorBlock* model) {
  return reinterpret_cast<const CorvinaWaveformGenerator*>(model);
}
CorvinaWaveformContext1* Api(WaveformContext* context) { return reinterpret_cast<CorvinaWaveformContext1*>(context); }

TEST(entry_point_writes_240_samples_and_takes_overlapping_arrays) {
  Rng rng(check::Seed());
  auto model = RandomModel(check::Seed());
  auto separate = NewBlock<WaveformContext>(), overlapping = NewBlock<WaveformContext>();
  FrameInputs inputs;
  for (int frame = 0; frame < 4; ++frame) {
    inputs.Randomize(rng);
    std::vector<float> output(kOutHop + 16, -7.0f);
    Corvina_GenerateWaveform1(Api(model.get()), inputs.phone, &inputs.pitch_bin, inputs.pitch_features,
                              inputs.speaker, output.data(), Api(separate.get()));
    for (int t = kOutHop; t < kOutHop + 16; ++t) CHECK(output[t] == -7.0f);
    // Output written over the phone input: the inputs were copied first.
    std::vector<float> shared(inputs.phone, inputs.phone + kChannels);
    Corvina_GenerateWaveform1(Api(model.get()), shared.data(), &inputs.pitch_bin, inputs.pitch_features,
                              inputs.speaker, shared.data(), Api(overlapping.get()));
    CHECK_MSG(SameBits(shared.data(), output.data(), kOutHop * sizeof(float)), "frame %d, overlapping arrays", frame);
  }
}

TEST(steady_state_frames_allocate_only_in_the_fft) {
  constexpr int kFrames = 10;
  Rng rng(check::Seed());
  auto model = RandomModel(check::Seed());
  auto context = NewBlock<WaveformContext>();
  FrameInputs inputs;
  inputs.Randomize(rng);
  float output[kOutHop];
  for (int frame = 0; frame < 3; ++frame)  // plans are built on first use
    Corvina_GenerateWaveform1(Api(model.get()), inputs.phone, &inputs.pitch_bin, inputs.pitch_features,
                              inputs.speaker, output, Api(context.get()));

  // What the frame's 60 inverse transforms allocate on their own.
  alignas(32) float spectrum[2 * kBandBins] = {1.0f}, samples[kFftLength];
  const std::uint64_t fft_start = alloc_counter::Count();
  for (int call = 0; call < kStage2Steps * kBands; ++call) InverseRealFft16(spectrum, samples, 0.0625f);
  const std::uint64_t fft_allocations = alloc_counter::Count() - fft_start;

  const std::uint64_t start = alloc_counter::Count();
  for (int frame = 0; frame < kFrames; ++frame) {
    inputs.Randomize(rng);
    Corvina_GenerateWaveform1(Api(model.get()), inputs.phone, &inputs.pitch_bin, inputs.pitch_features,
                              inputs.speaker, output, Api(context.get()));
  }
  const std::uint64_t total = alloc_counter::Count() - start;
  const std::uint64_t per_frame = total / kFrames;
  std::printf("allocations per frame: %llu (the 60 inverse transforms alone: %llu)\n",
              static_cast<unsigned long long>(per_frame), static_cast<unsigned long long>(fft_allocations));
  CHECK_MSG(total == kFrames * fft_allocations,
            "%llu per frame, %llu of them in the transforms", static_cast<unsigned long long>(per_frame),
            static_cast<unsigned long long>(fft_allocations));
}

}  // namespace

CHECK_MAIN
