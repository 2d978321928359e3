// The processor check that runs before anything else at import. Compiled for
// plain x86-64 so that an old processor gets a clean ImportError.
#pragma once
#include <cstdint>

namespace corvina {

// True when CPUID leaf 1 ECX has XSAVE (26), OSXSAVE (27), FMA (12), AVX (28)
// and F16C (29), and leaf 7 EBX has AVX2 (5). OSXSAVE is taken as enough: the
// saved-state mask is not read.
constexpr bool CpuFeaturesSupported(std::uint32_t leaf1_ecx, std::uint32_t leaf7_ebx) {
  constexpr std::uint32_t kLeaf1Bits[] = {26, 27, 12, 28, 29};
  for (std::uint32_t bit : kLeaf1Bits)
    if (((leaf1_ecx >> bit) & 1u) == 0) return false;
  return ((leaf7_ebx >> 5) & 1u) != 0;
}

// Runs CPUID on this processor.
bool CpuSupported();

}  // namespace corvina
