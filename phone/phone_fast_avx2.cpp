// The phone extractor's fast layers and network on 256-bit vectors; the
// layers are in phone_fast.inc, the network in phone_network.h.
#include <cstring>

#include "../engine/batch.h"
#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"
#include "phone_network.h"

namespace corvina {
namespace fast_avx2 {

using Lanes = Lanes8;
#include "../engine/sweep.inc"
#include "phone_fast.inc"

const float* ExtractPhone(const PhoneExtractorBlock& model, const float* x, PhoneContext* context) {
  return RunPhoneNetwork<FastAvx2PhoneKernels>(model, x, context);
}

}  // namespace fast_avx2
}  // namespace corvina
