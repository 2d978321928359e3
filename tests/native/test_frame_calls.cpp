// The exported one-frame calls: each writes exactly its outputs, only reads
// its model block, and a steady-state frame allocates only the FFT library's
// working buffers. What they compute: test_golden_chain and the references.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "alloc_counter.h"
#include "check.h"
#include "engine/corvina.h"
#include "engine/fft.h"
#include "phone/phone_kernels.h"
#include "pitch/pitch_layout.h"
#include "waveform/waveform_kernels.h"
#include "test_support.h"

using namespace test_support;

namespace {

// One frame's inputs to the waveform generator.
struct FrameInputs {
  alignas(64) float phone[kChannels];
  alignas(64) float pitch_features[CORVINA_PITCH_FEATURES];
  alignas(64) float speaker[kChannels];
  std::int32_t pitch_bin = 0;

  void Randomize(Rng& rng) {
    FillFloats(phone, kChannels, 1.0f, rng);
    FillFloats(pitch_features, CORVINA_PITCH_FEATURES, 1.0f, rng);
    FillFloats(speaker, kChannels, 0.5f, rng);
    pitch_bin = std::uniform_int_distribution<int>(0, CORVINA_PITCH_BINS - 1)(rng);
  }
};

constexpr int kWarmUp = 4, kFrames = 30;  // plans and caches are built on first use
constexpr float kSentinel = -7.0f;

// A copy of a model block, to show that frames only read it.
template <typename T>
std::vector<std::uint8_t> Bytes(const T& block) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(&block);
  return std::vector<std::uint8_t>(p, p + sizeof block);
}

// Runs `frame(f, output)` for the warm-up and the steady state; checks that
// nothing past `outputs` floats was written and returns the allocations of
// the steady-state frames.
template <typename Frame>
std::uint64_t SteadyAllocations(int outputs, Frame frame) {
  std::vector<float> output(outputs + 16, kSentinel);
  for (int f = 0; f < kWarmUp; ++f) frame(f, output.data());
  const std::uint64_t before = alloc_counter::Count();
  for (int f = kWarmUp; f < kWarmUp + kFrames; ++f) frame(f, output.data());
  const std::uint64_t allocations = alloc_counter::Count() - before;
  for (int i = outputs; i < outputs + 16; ++i) CHECK_MSG(output[i] == kSentinel, "float %d past the outputs", i);
  return allocations;
}

TEST(phone_and_pitch_frames_write_their_outputs_read_the_model_and_allocate_only_fft_buffers) {
  auto phone = RandomPhoneModel(check::Seed());
  auto pitch = RandomPitchModel(check::Seed());
  const auto phone_before = Bytes(*phone), pitch_before = Bytes(*pitch);
  CorvinaPhoneContext1* phone_context = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch_context = Corvina_CreatePitchContext1();
  const std::vector<float> signal = SpeechLikeSignal(kWarmUp + kFrames, check::Seed());
  const auto phone_allocations = SteadyAllocations(kChannels, [&](int f, float* output) {
    Corvina_ExtractPhone1(reinterpret_cast<const CorvinaPhoneExtractor*>(phone.get()), &signal[f * kPhoneHop],
                          output, phone_context);
  });
  const auto pitch_allocations = SteadyAllocations(CORVINA_PITCH_FEATURES, [&](int f, float* features) {
    std::int32_t bin = -1;
    Corvina_EstimatePitch1(reinterpret_cast<const CorvinaPitchEstimator*>(pitch.get()), &signal[f * kPhoneHop], &bin,
                           features, pitch_context);
    CHECK_MSG(bin >= 1 && bin < CORVINA_PITCH_BINS, "frame %d: bin %d", f, bin);
  });
  // The FFT library takes one working buffer per transform call: two a pitch frame (its three forward
  // transforms share one call); a phone frame runs none.
  CHECK_MSG(phone_allocations == 0 && pitch_allocations <= 2u * kFrames, "%llu phone, %llu pitch allocations",
            static_cast<unsigned long long>(phone_allocations), static_cast<unsigned long long>(pitch_allocations));
  CHECK(Bytes(*phone) == phone_before && Bytes(*pitch) == pitch_before);
  Corvina_DestroyPhoneContext1(phone_context);
  Corvina_DestroyPitchContext1(pitch_context);
}

TEST(waveform_frames_write_240_samples_take_overlapping_arrays_and_allocate_only_in_the_fft) {
  Rng rng(check::Seed());
  auto model = RandomWaveformModel(check::Seed());
  const auto before = Bytes(*model);
  const auto* api = reinterpret_cast<const CorvinaWaveformGenerator*>(model.get());
  CorvinaWaveformContext1* context = Corvina_CreateWaveformContext1();
  CorvinaWaveformContext1* overlapping = Corvina_CreateWaveformContext1();
  FrameInputs inputs;
  const auto allocations = SteadyAllocations(kOutHop, [&](int, float* output) {
    inputs.Randomize(rng);
    Corvina_GenerateWaveform1(api, inputs.phone, &inputs.pitch_bin, inputs.pitch_features, inputs.speaker, output,
                              context);
  });
  // What a frame's 60 inverse transforms allocate on their own.
  alignas(32) float spectrum[2 * kBandBins] = {1.0f}, samples[kFftLength];
  const std::uint64_t fft_start = alloc_counter::Count();
  for (int call = 0; call < kStage2Steps * kBands; ++call) InverseRealFft16(spectrum, samples, 0.0625f);
  const std::uint64_t fft_allocations = alloc_counter::Count() - fft_start;
  CHECK_MSG(allocations == kFrames * fft_allocations, "%llu allocations, %llu per frame in the transforms",
            static_cast<unsigned long long>(allocations), static_cast<unsigned long long>(fft_allocations));
  CHECK(Bytes(*model) == before);

  // Output written over the phone input: the inputs are copied first.
  Corvina_DestroyWaveformContext1(context);
  context = Corvina_CreateWaveformContext1();
  for (int frame = 0; frame < 3; ++frame) {
    inputs.Randomize(rng);
    float output[kOutHop];
    Corvina_GenerateWaveform1(api, inputs.phone, &inputs.pitch_bin, inputs.pitch_features, inputs.speaker, output,
                              context);
    std::vector<float> shared(inputs.phone, inputs.phone + kChannels);
    Corvina_GenerateWaveform1(api, shared.data(), &inputs.pitch_bin, inputs.pitch_features, inputs.speaker,
                              shared.data(), overlapping);
    CHECK_MSG(SameFloats(shared.data(), output, kOutHop), "frame %d, overlapping arrays", frame);
  }
  Corvina_DestroyWaveformContext1(context);
  Corvina_DestroyWaveformContext1(overlapping);
}

}  // namespace

CHECK_MAIN
