// The generator's frame with 256-bit vectors (the engine's path); the frame
// itself is in waveform_pipeline.inc.
#include <cstdint>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "waveform_kernels.h"

namespace corvina {
namespace avx2 {

void WidenHalves(const f16* x, float* y, int n) {
  for (int i = 0; i < n; i += 8) _mm256_storeu_ps(y + i, LoadHalf8Unaligned(x + i));
}

#include "waveform_pipeline.inc"

}  // namespace avx2
}  // namespace corvina
