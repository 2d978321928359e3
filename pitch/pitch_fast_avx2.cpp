// The pitch network on the fast 256-bit kernels; the network is in
// pitch_batch.inc.
#include <cstring>

#include "../engine/batch.h"
#include "../engine/kernels.h"
#include "depthwise_conv33.h"
#include "pitch_network.h"

namespace corvina {
namespace fast_avx2 {

// 6k products a block: the straightforward build is as fast as any.
void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out) {
  avx2::DepthwiseConv33(weights, x, state, out);
}

#include "pitch_batch.inc"

}  // namespace fast_avx2
}  // namespace corvina
