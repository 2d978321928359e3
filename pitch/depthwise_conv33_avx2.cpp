#include <cstring>

#include "../engine/vector_math_avx2.h"
#include "depthwise_conv33.h"

namespace corvina {
namespace avx2 {

void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out) {
  constexpr int kPast = kPitchDepthwiseTaps - 1;
  const int index = state->index;
  for (int c = 0; c < kPitchWidth; c += 8) {
    __m256 sum = LoadHalf8(weights.depthwise_bias + c);
    for (int t = 0; t < kPast; ++t)
      sum = _mm256_fmadd_ps(LoadHalf8(weights.depthwise + t * kPitchWidth + c),
                            _mm256_load_ps(state->ring[(index + t) % kPast] + c), sum);
    sum = _mm256_fmadd_ps(LoadHalf8(weights.depthwise + kPast * kPitchWidth + c), _mm256_loadu_ps(x + c), sum);
    _mm256_storeu_ps(out + c, sum);
  }
  std::memcpy(state->ring[index], x, sizeof state->ring[index]);
  state->index = (index + 1) % kPast;
}

}  // namespace avx2
}  // namespace corvina
