// The phone extractor's fast layers and network on 512-bit vectors; the
// layers are in phone_fast.inc, the network in phone_network.h.
#include <cstring>

#include "../engine/batch.h"
#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "../engine/vector_math_avx512.h"
#include "phone_kernels.h"
#include "phone_network.h"

namespace corvina {
namespace fast_avx512 {

using Lanes = Lanes16;
#include "../engine/sweep.inc"
#include "phone_fast.inc"

const float* ExtractPhone(const PhoneExtractorBlock& model, const float* x, PhoneContext* context) {
  return RunPhoneNetwork<FastAvx512PhoneKernels>(model, x, context);
}

}  // namespace fast_avx512
}  // namespace corvina
