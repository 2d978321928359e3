// The upsampling layers with 256-bit vectors; the layers themselves are in
// upsampling.inc.
#include <cstdint>
#include <cstring>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "waveform_kernels.h"

namespace corvina {
namespace avx2 {

void AddBias(float* y, const float* x, const f16* bias, int n) {
  for (int i = 0; i < n; i += 8)
    _mm256_storeu_ps(y + i, _mm256_add_ps(_mm256_loadu_ps(x + i), LoadHalf8Unaligned(bias + i)));
}

#include "upsampling.inc"

}  // namespace avx2
}  // namespace corvina
