#include "kernel_set.h"

#include <cpuid.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvina {

extern const KernelTable kAvx2Kernels;    // isa_avx2.cpp
extern const KernelTable kAvx512Kernels;  // isa_avx512.cpp
namespace tanh_avx2 {
bool MatchesLibrary();  // isa_avx2.cpp: run only where AVX2 is supported
}

namespace {

// XCR0: the register state the operating system saves on a context switch.
std::uint64_t SavedStateMask() {
  std::uint32_t low, high;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (static_cast<std::uint64_t>(high) << 32) | low;
}

bool Bit(unsigned value, int bit) { return ((value >> bit) & 1u) != 0; }

ProcessorFeatures Detect() {
  unsigned eax, ebx, ecx, edx;
  if (!__get_cpuid_count(1, 0, &eax, &ebx, &ecx, &edx)) return {};
  const unsigned leaf1_ecx = ecx;
  if (!Bit(leaf1_ecx, 27)) return {};  // OSXSAVE: XGETBV is usable
  const std::uint64_t xcr0 = SavedStateMask();
  if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return {};
  return FeaturesFrom(leaf1_ecx, ebx, xcr0);
}

const ProcessorFeatures& Supported() {
  static const ProcessorFeatures features = Detect();
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

const KernelTable* const kTables[kKernelSets] = {&kAvx2Kernels, &kAvx512Kernels};
std::atomic<int> g_active{static_cast<int>(FromEnvironment())};
const bool g_vector_tanh = Supported().avx2 && tanh_avx2::MatchesLibrary();

}  // namespace

ProcessorFeatures FeaturesFrom(std::uint32_t leaf1_ecx, std::uint32_t leaf7_ebx, std::uint64_t xcr0) {
  const bool ymm_saved = Bit(leaf1_ecx, 27) && (xcr0 & 0x6u) == 0x6u;  // OSXSAVE, SSE and AVX state
  const bool zmm_saved = ymm_saved && (xcr0 & 0xE6u) == 0xE6u;         // plus opmask, ZMM_Hi256, Hi16_ZMM
  ProcessorFeatures f;
  f.avx2 = ymm_saved && Bit(leaf1_ecx, 28) && Bit(leaf1_ecx, 12) && Bit(leaf1_ecx, 29) && Bit(leaf7_ebx, 5);
  f.avx512 = f.avx2 && zmm_saved && Bit(leaf7_ebx, 16) && Bit(leaf7_ebx, 17) && Bit(leaf7_ebx, 30) &&
             Bit(leaf7_ebx, 31);
  return f;
}

const char* KernelSetName(KernelSet set) { return set == KernelSet::kAvx512 ? "avx512" : "avx2"; }

bool KernelSetSupported(KernelSet set) {
  return set == KernelSet::kAvx512 ? Supported().avx512 : Supported().avx2;
}

bool ProcessorSupported() { return Supported().avx2; }

void RequireSupportedProcessor() {
  if (ProcessorSupported()) return;
  std::fputs("Unsupported CPU.\n", stderr);
  std::abort();
}

bool VectorTanhExact() { return g_vector_tanh; }

const KernelTable& ActiveKernels() { return *kTables[g_active.load(std::memory_order_relaxed)]; }

KernelSet ActiveKernelSet() { return static_cast<KernelSet>(g_active.load(std::memory_order_relaxed)); }

KernelSet SelectKernelSet(KernelSet set) {
  if (KernelSetSupported(set)) g_active.store(static_cast<int>(set), std::memory_order_relaxed);
  return ActiveKernelSet();
}

}  // namespace corvina
