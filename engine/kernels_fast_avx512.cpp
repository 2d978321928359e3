// The fast shared kernels on 512-bit vectors; the kernels themselves are in
// fast_kernels.inc.
#include <cmath>
#include <cstring>

#include "kernel_set.h"
#include "kernels.h"
#include "tanh_avx2.h"
#include "vector_math_avx2.h"
#include "vector_math_avx512.h"

namespace corvina {
namespace fast_avx512 {

using Lanes = Lanes16;
#include "sweep.inc"
#include "fast_kernels.inc"

}  // namespace fast_avx512
}  // namespace corvina
