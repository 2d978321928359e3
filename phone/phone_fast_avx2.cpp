// The phone extractor's fast layers and network on 256-bit vectors; the
// layers are in phone_fast.inc, the network (for a batch of streams) too.
#include <cstring>

#include "../engine/batch.h"
#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"

namespace corvina {
namespace fast_avx2 {

using Lanes = Lanes8;
#include "../engine/sweep.inc"
#include "phone_fast.inc"

}  // namespace fast_avx2
}  // namespace corvina
