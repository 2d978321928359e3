// The gated recurrent layer with 256-bit vectors (recurrent_layer.inc).
#include <cstring>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"

namespace corvina {
namespace avx2 {
namespace {
constexpr auto Update = &GatedRecurrentUpdate8;
}

#include "recurrent_layer.inc"

}  // namespace avx2
}  // namespace corvina
