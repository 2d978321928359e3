// The waveform generator on the fast 256-bit kernels; the stages are in
// waveform_fast.inc and the shared *.inc bodies.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "../engine/fft.h"
#include "../engine/kernels.h"
#include "dilated_causal_conv.h"
#include "waveform_kernels.h"

namespace corvina {
namespace fast_avx2 {

#include "waveform_fast.inc"

}  // namespace fast_avx2
}  // namespace corvina
