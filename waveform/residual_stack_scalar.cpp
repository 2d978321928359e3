// The residual stacks' definition: the element-wise helpers here, the stack
// itself in residual_stack.inc.
#include <cstring>

#include "../engine/activations_scalar.h"
#include "../engine/kernels.h"
#include "dilated_causal_conv.h"
#include "waveform_kernels.h"

namespace corvina {
namespace scalar {

void SiluCopy(const float* x, float* y, int n) {
  for (int i = 0; i < n; ++i) y[i] = Silu(x[i]);
}

void AddInPlace(float* y, const float* x, int n) {
  for (int i = 0; i < n; ++i) y[i] = x[i] + y[i];
}

void MeanOfThree(float* out, const float* a, const float* b, int n) {
  for (int i = 0; i < n; ++i) out[i] = ((out[i] + a[i]) + b[i]) * kOneThird;
}

#include "residual_stack.inc"

}  // namespace scalar
}  // namespace corvina
