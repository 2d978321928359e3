// The dilated causal convolution on the fast 512-bit sweeps; the layer is
// in dilated_causal_conv_fast.inc.
#include <cstring>

#include "../engine/vector_math_avx2.h"
#include "../engine/vector_math_avx512.h"
#include "dilated_causal_conv.h"

namespace corvina {
namespace fast_avx512 {

using Lanes = Lanes16;
#include "../engine/sweep.inc"
#include "dilated_causal_conv_fast.inc"

}  // namespace fast_avx512
}  // namespace corvina
