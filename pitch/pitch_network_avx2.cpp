// The pitch network built from the straightforward 256-bit kernels (kernel
// set "basic").
#include <cstring>

#include "../engine/kernels.h"
#include "depthwise_conv33.h"
#include "pitch_network.h"

namespace corvina {
namespace avx2 {

#include "pitch_network.inc"

}  // namespace avx2
}  // namespace corvina
