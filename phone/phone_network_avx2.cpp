// The phone network built from the vector kernels: the engine's path.
#include "phone_network.h"

namespace corvina {
namespace avx2 {

const float* ExtractPhone(const PhoneExtractorBlock& model, const float* x, PhoneContext* context) {
  return RunPhoneNetwork<VectorPhoneKernels>(model, x, context);
}

}  // namespace avx2
}  // namespace corvina
