#include "cpu_check.h"

#include <cpuid.h>

namespace corvina {

bool CpuSupported() {
  unsigned eax, ebx, ecx, edx;
  __cpuid_count(1, 0, eax, ebx, ecx, edx);
  const std::uint32_t leaf1_ecx = ecx;
  __cpuid_count(7, 0, eax, ebx, ecx, edx);
  return CpuFeaturesSupported(leaf1_ecx, ebx);
}

}  // namespace corvina
