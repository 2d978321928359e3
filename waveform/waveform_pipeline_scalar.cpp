// The generator's frame built from the scalar definitions, for comparing
// whole streams with the vector build; the frame itself is in
// waveform_pipeline.inc.
#include <cstdint>

#include "../engine/kernels.h"
#include "waveform_kernels.h"

namespace corvina {
namespace scalar {

void WidenHalves(const f16* x, float* y, int n) {
  for (int i = 0; i < n; ++i) y[i] = HalfToFloat(x[i]);
}

#include "waveform_pipeline.inc"

}  // namespace scalar
}  // namespace corvina
