// Whole frames through the C interface: heap traffic per steady-state frame,
// a model block that is only read, and outputs in range.
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "engine/corvina.h"
#include "pitch/pitch_layout.h"
#include "test_support.h"
#include "tests/native/alloc_counter.h"
#include "tests/native/check.h"

namespace {

// Random weights of moderate size (|w| in 2^-8 .. 2^-3), vectors included.
void FillRandomWeights(CorvinaPitchEstimator* model, unsigned seed) {
  std::mt19937 rng(seed);
  auto* halves = reinterpret_cast<std::uint16_t*>(reinterpret_cast<std::uint8_t*>(model) + 64);
  const std::size_t count = CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES / 2;
  for (std::size_t i = 0; i < count; ++i)
    halves[i] = static_cast<std::uint16_t>((rng() % 2) << 15 | (7 + rng() % 6) << 10 | rng() % 1024);
}

TEST(steady_state_frames_read_the_model_and_allocate_only_fft_buffers) {
  CorvinaPitchEstimator* model = Corvina_CreatePitchEstimator();
  FillRandomWeights(model, check::Seed());
  CorvinaPitchContext1* context = Corvina_CreatePitchContext1();
  test_support::Rng rng(check::Seed() + 1);
  const std::vector<float> signal = test_support::RandomFloats(200 * CORVINA_IN_HOP_LENGTH, 0.17f, rng);
  std::vector<std::uint8_t> model_before(reinterpret_cast<std::uint8_t*>(model),
                                         reinterpret_cast<std::uint8_t*>(model) + sizeof(corvina::PitchEstimatorBlock));

  std::int32_t pitch;
  float features[CORVINA_PITCH_FEATURES];
  constexpr int kWarmUp = 40, kFrames = 160;
  int out_of_range = 0;
  for (int frame = 0; frame < kWarmUp; ++frame)
    Corvina_EstimatePitch1(model, signal.data() + frame * CORVINA_IN_HOP_LENGTH, &pitch, features, context);
  const std::uint64_t before = alloc_counter::Count();
  for (int frame = kWarmUp; frame < kWarmUp + kFrames; ++frame) {
    Corvina_EstimatePitch1(model, signal.data() + frame * CORVINA_IN_HOP_LENGTH, &pitch, features, context);
    out_of_range += pitch < 1 || pitch >= CORVINA_PITCH_BINS || !(features[1] >= 0.0f && features[1] <= 1.0f);
  }
  const std::uint64_t allocations = alloc_counter::Count() - before;
  std::printf("heap allocations per steady-state frame: %.2f\n", static_cast<double>(allocations) / kFrames);
  // The FFT library takes one working buffer per transform: four per frame.
  CHECK_MSG(allocations <= 4u * kFrames, "%llu allocations in %d frames", static_cast<unsigned long long>(allocations),
            kFrames);
  CHECK_MSG(out_of_range == 0, "%d frames with a bin or p0 out of range", out_of_range);
  CHECK(std::memcmp(model_before.data(), model, model_before.size()) == 0);
  Corvina_DestroyPitchContext1(context);
  Corvina_DestroyPitchEstimator(model);
}

}  // namespace

CHECK_MAIN
