#include <cmath>
#include <cstring>

#include "depthwise_conv33.h"

namespace corvina {
namespace scalar {

void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out) {
  constexpr int kPast = kPitchDepthwiseTaps - 1;
  const int index = state->index;
  for (int c = 0; c < kPitchWidth; ++c) {
    float sum = HalfToFloat(weights.depthwise_bias[c]);
    for (int t = 0; t < kPast; ++t)
      sum = std::fma(HalfToFloat(weights.depthwise[t * kPitchWidth + c]), state->ring[(index + t) % kPast][c], sum);
    out[c] = std::fma(HalfToFloat(weights.depthwise[kPast * kPitchWidth + c]), x[c], sum);
  }
  std::memcpy(state->ring[index], x, sizeof state->ring[index]);
  state->index = (index + 1) % kPast;
}

}  // namespace scalar
}  // namespace corvina
