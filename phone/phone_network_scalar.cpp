// The phone network built from the scalar kernel definitions: the reference
// that the vector build must match bit for bit.
#include "phone_network.h"

namespace corvina {
namespace scalar {

const float* ExtractPhone(const PhoneExtractorBlock& model, const float* x, PhoneContext* context) {
  return RunPhoneNetwork<ScalarPhoneKernels>(model, x, context);
}

}  // namespace scalar
}  // namespace corvina
