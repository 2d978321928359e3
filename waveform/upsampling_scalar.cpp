// The upsampling layers' definition; the layers themselves are in
// upsampling.inc.
#include <cstdint>
#include <cstring>

#include "../engine/kernels.h"
#include "waveform_kernels.h"

namespace corvina {
namespace scalar {

void AddBias(float* y, const float* x, const f16* bias, int n) {
  for (int i = 0; i < n; ++i) y[i] = x[i] + HalfToFloat(bias[i]);
}

#include "upsampling.inc"

}  // namespace scalar
}  // namespace corvina
