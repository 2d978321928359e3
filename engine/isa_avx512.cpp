// The AVX-512 set: every kernel and network with 512-bit sweeps, and its
// table. The only file compiled with AVX-512; it runs only where the
// processor check at load (kernel_set.cpp) finds AVX-512.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "../phone/phone_kernels.h"
#include "../pitch/pitch_network.h"
#include "../waveform/dilated_causal_conv.h"
#include "../waveform/waveform_kernels.h"
#include "batch.h"
#include "fft.h"
#include "kernel_set.h"
#include "kernels.h"
#include "vector_math_avx2.h"
#include "vector_math_avx512.h"

namespace corvina {
namespace avx512 {

using Lanes = Lanes16;
#include "vector_set.inc"

}  // namespace avx512

extern const KernelTable kAvx512Kernels = {"avx512", avx512::ExtractPhoneN, avx512::PitchNetworkN,
                                           avx512::GenerateWaveformN};

}  // namespace corvina
