// The 33-tap depthwise convolution: vector and scalar builds agree bit for
// bit, frame after frame, through two full turns of the ring. (Which frame
// each tap meets is checked end to end against the float64 reference.)
#include <cstring>
#include <memory>
#include <random>

#include "engine/aligned_block.h"
#include "pitch/depthwise_conv33.h"
#include "tests/native/check.h"

namespace {

using namespace corvina;

// Finite halves of either sign over a wide range of magnitudes (2^-14 .. 2^15).
f16 RandomHalf(std::mt19937& rng) {
  const unsigned exponent = 1 + rng() % 30, mantissa = rng() % 1024, sign = rng() % 2;
  return static_cast<f16>(sign << 15 | exponent << 10 | mantissa);
}

struct Freer {
  template <typename T>
  void operator()(T* p) const { DeleteBlock(p); }
};

TEST(vector_matches_scalar_bit_for_bit) {
  std::mt19937 rng(check::Seed());
  std::unique_ptr<PitchEstimatorBlock, Freer> model(NewZeroedBlock<PitchEstimatorBlock>());
  PitchBlockWeights& weights = model->blocks[0];
  for (f16& w : weights.depthwise) w = RandomHalf(rng);
  for (f16& w : weights.depthwise_bias) w = RandomHalf(rng);

  std::unique_ptr<PitchContext, Freer> vector_context(NewZeroedBlock<PitchContext>());
  std::unique_ptr<PitchContext, Freer> scalar_context(NewZeroedBlock<PitchContext>());
  PitchBlockState* vector_state = &vector_context->block_states[0];
  PitchBlockState* scalar_state = &scalar_context->block_states[0];
  std::normal_distribution<float> normal(0.0f, 3.0f);
  int mismatched_frames = 0;
  for (int frame = 0; frame < 70; ++frame) {
    alignas(64) float x[kPitchWidth];
    for (float& v : x) v = normal(rng);
    alignas(64) float vector_out[kPitchWidth], scalar_out[kPitchWidth];
    avx2::DepthwiseConv33(weights, x, vector_state, vector_out);
    scalar::DepthwiseConv33(weights, x, scalar_state, scalar_out);
    if (std::memcmp(vector_out, scalar_out, sizeof vector_out) != 0) ++mismatched_frames;
  }
  CHECK_MSG(mismatched_frames == 0, "%d frames differ", mismatched_frames);
  CHECK(std::memcmp(vector_state, scalar_state, sizeof *vector_state) == 0);
  CHECK(vector_state->index == 70 % 32);
}

}  // namespace

CHECK_MAIN
