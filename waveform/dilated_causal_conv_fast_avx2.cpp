// The dilated causal convolution on the fast 256-bit sweeps; the layer is
// in dilated_causal_conv_fast.inc.
#include <cstring>

#include "../engine/vector_math_avx2.h"
#include "dilated_causal_conv.h"

namespace corvina {
namespace fast_avx2 {

using Lanes = Lanes8;
#include "../engine/sweep.inc"
#include "dilated_causal_conv_fast.inc"

}  // namespace fast_avx2
}  // namespace corvina
