// The gated recurrent layer, the definition (recurrent_layer.inc).
#include <cmath>
#include <cstring>

#include "../engine/activations_scalar.h"
#include "../engine/kernels.h"
#include "phone_kernels.h"

namespace corvina {
namespace scalar {
namespace {
constexpr auto Update = &GatedRecurrentUpdate;
}

#include "recurrent_layer.inc"

}  // namespace scalar
}  // namespace corvina
