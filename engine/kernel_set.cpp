#include "kernel_set.h"

#include <cpuid.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace corvina {
namespace tanh_avx2 {
bool MatchesLibrary();  // tanh_check_avx2.cpp: AVX2 code, run only where AVX2 is supported
}
namespace {

// XCR0: the register state the operating system saves on a context switch.
std::uint64_t SavedStateMask() {
  std::uint32_t low, high;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (static_cast<std::uint64_t>(high) << 32) | low;
}

bool Bit(unsigned value, int bit) { return ((value >> bit) & 1u) != 0; }

struct Features {
  bool avx2 = false;    // AVX2, FMA, F16C with YMM state saved
  bool avx512 = false;  // AVX-512 F, BW, VL, DQ with ZMM and mask state saved
};

Features Detect() {
  Features f;
  unsigned eax, ebx, ecx, edx;
  if (!__get_cpuid_count(1, 0, &eax, &ebx, &ecx, &edx)) return f;
  const unsigned leaf1_ecx = ecx;
  if (!Bit(leaf1_ecx, 27)) return f;  // OSXSAVE: XGETBV is usable
  const std::uint64_t xcr0 = SavedStateMask();
  const bool ymm_saved = (xcr0 & 0x6u) == 0x6u;     // SSE and AVX state
  const bool zmm_saved = (xcr0 & 0xE6u) == 0xE6u;   // plus opmask, ZMM_Hi256, Hi16_ZMM
  if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return f;
  f.avx2 = ymm_saved && Bit(leaf1_ecx, 28) && Bit(leaf1_ecx, 12) && Bit(leaf1_ecx, 29) && Bit(ebx, 5);
  f.avx512 = f.avx2 && zmm_saved && Bit(ebx, 16) && Bit(ebx, 17) && Bit(ebx, 30) && Bit(ebx, 31);
  return f;
}

const Features& Supported() {
  static const Features features = Detect();
  return features;
}

KernelSet Best() { return Supported().avx512 ? KernelSet::kAvx512 : KernelSet::kAvx2; }

KernelSet FromEnvironment() {
  const char* name = std::getenv("CORVINA_ISA");
  if (name != nullptr)
    for (int i = 0; i < kKernelSets; ++i) {
      const auto set = static_cast<KernelSet>(i);
      if (std::strcmp(name, KernelSetName(set)) == 0 && KernelSetSupported(set)) return set;
    }
  return Best();
}

std::atomic<int> g_active{static_cast<int>(FromEnvironment())};
const bool g_vector_tanh = Supported().avx2 && tanh_avx2::MatchesLibrary();

}  // namespace

const char* KernelSetName(KernelSet set) {
  switch (set) {
    case KernelSet::kBasic: return "basic";
    case KernelSet::kAvx2: return "avx2";
    case KernelSet::kAvx512: return "avx512";
  }
  return "unknown";
}

bool KernelSetSupported(KernelSet set) {
  return set == KernelSet::kAvx512 ? Supported().avx512 : Supported().avx2;
}

bool VectorTanhExact() { return g_vector_tanh; }

KernelSet ActiveKernelSet() { return static_cast<KernelSet>(g_active.load(std::memory_order_relaxed)); }

KernelSet SelectKernelSet(KernelSet set) {
  if (KernelSetSupported(set)) g_active.store(static_cast<int>(set), std::memory_order_relaxed);
  return ActiveKernelSet();
}

}  // namespace corvina
