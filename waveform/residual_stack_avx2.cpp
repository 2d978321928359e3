// The residual stacks with 256-bit vectors: the element-wise helpers here,
// the stack itself in residual_stack.inc.
#include <cstring>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "dilated_causal_conv.h"
#include "waveform_kernels.h"

namespace corvina {
namespace avx2 {

void SiluCopy(const float* x, float* y, int n) {
  for (int i = 0; i < n; i += 8) _mm256_storeu_ps(y + i, Silu8(_mm256_loadu_ps(x + i)));
}

void AddInPlace(float* y, const float* x, int n) {
  for (int i = 0; i < n; i += 8) _mm256_storeu_ps(y + i, _mm256_add_ps(_mm256_loadu_ps(x + i), _mm256_loadu_ps(y + i)));
}

void MeanOfThree(float* out, const float* a, const float* b, int n) {
  const __m256 third = _mm256_set1_ps(kOneThird);
  for (int i = 0; i < n; i += 8) {
    const __m256 sum = _mm256_add_ps(_mm256_add_ps(_mm256_loadu_ps(out + i), _mm256_loadu_ps(a + i)),
                                     _mm256_loadu_ps(b + i));
    _mm256_storeu_ps(out + i, _mm256_mul_ps(sum, third));
  }
}

#include "residual_stack.inc"

}  // namespace avx2
}  // namespace corvina
