// The 33-tap depthwise convolution: vector and scalar builds agree bit for
// bit, frame after frame, through two full turns of the ring, on weights of
// every magnitude from 2^-14 to 2^15. (Which frame each tap meets is checked
// end to end against the float64 reference.)
#include <iterator>

#include "pitch/depthwise_conv33.h"
#include "test_support.h"
#include "tests/native/check.h"

namespace {

using namespace test_support;

TEST(vector_matches_scalar_bit_for_bit) {
  Rng rng(check::Seed());
  auto model = NewBlock<PitchEstimatorBlock>();
  PitchBlockWeights& weights = model->blocks[0];
  RandomHalves(weights.depthwise, std::size(weights.depthwise), rng, 30);
  RandomHalves(weights.depthwise_bias, std::size(weights.depthwise_bias), rng, 30);
  auto vector_context = NewBlock<PitchContext>(), scalar_context = NewBlock<PitchContext>();
  PitchBlockState* vector_state = &vector_context->block_states[0];
  PitchBlockState* scalar_state = &scalar_context->block_states[0];
  int mismatched_frames = 0;
  for (int frame = 0; frame < 70; ++frame) {
    alignas(64) float x[kPitchWidth], vector_out[kPitchWidth], scalar_out[kPitchWidth];
    FillFloats(x, kPitchWidth, 6.0f, rng);
    avx2::DepthwiseConv33(weights, x, vector_state, vector_out);
    scalar::DepthwiseConv33(weights, x, scalar_state, scalar_out);
    mismatched_frames += !SameFloats(vector_out, scalar_out, kPitchWidth);
  }
  CHECK_MSG(mismatched_frames == 0, "%d frames differ", mismatched_frames);
  CHECK(SameBits(vector_state, scalar_state, sizeof *vector_state));
  CHECK(vector_state->index == 70 % 32);
}

}  // namespace

CHECK_MAIN
