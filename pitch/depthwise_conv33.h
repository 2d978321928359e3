// The pitch blocks' 33-tap depthwise causal convolution over 192 channels.
// Each channel starts from its bias and accumulates with fused multiply-adds
// from the oldest frame (tap 0, 32 frames ago) to the current one (tap 32).
// The input then replaces the oldest ring slot and the index advances.
// scalar:: is the definition; the vector builds (short_kernels_avx2.inc)
// match it bit for bit.
#pragma once
#include "pitch_layout.h"

namespace corvina {
namespace scalar {
void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out);
}
namespace avx2 {
void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out);
}
namespace avx512 {
void DepthwiseConv33(const PitchBlockWeights& weights, const float* x, PitchBlockState* state, float* out);
}
}  // namespace corvina
