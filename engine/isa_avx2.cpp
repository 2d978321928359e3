// The AVX2 set: every kernel and network on 256-bit vectors, and its table.
// One of the two files compiled with AVX2/FMA/F16C; the load-time tanh check
// lives here too, as it runs the vector tanh.
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

namespace corvina {
namespace avx2 {

using Lanes = Lanes8;
#include "vector_set.inc"

}  // namespace avx2

extern const KernelTable kAvx2Kernels = {"avx2", avx2::ExtractPhoneN, avx2::PitchNetworkN,
                                         avx2::GenerateWaveformN};

namespace tanh_avx2 {

// Bit patterns spread over every sign, exponent and mantissa (65,536 of
// them, 65,521 apart): a library whose tanh is computed another way
// disagrees on a good share of them. The whole range is compared by
// tests/native/test_tanh_exhaustive.cpp.
bool MatchesLibrary() { return avx2::TanhMismatches(0, std::uint64_t{1} << 32, 65521) == 0; }

}  // namespace tanh_avx2
}  // namespace corvina
