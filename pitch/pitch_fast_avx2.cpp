// The pitch network on the fast 256-bit kernels; the network is in
// pitch_batch.inc.
#include <cstring>

#include "../engine/batch.h"
#include "../engine/kernels.h"
#include "depthwise_conv33.h"
#include "pitch_network.h"

namespace corvina {
namespace fast_avx2 {

#include "pitch_batch.inc"

}  // namespace fast_avx2
}  // namespace corvina
