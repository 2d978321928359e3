// The pitch network built from the scalar kernel definitions: the reference
// that every vector build must match bit for bit.
#include <cstring>

#include "../engine/kernels.h"
#include "depthwise_conv33.h"
#include "pitch_network.h"

namespace corvina {
namespace scalar {

#include "pitch_network.inc"

}  // namespace scalar
}  // namespace corvina
