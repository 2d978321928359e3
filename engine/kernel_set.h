// Which build of the kernels the processing functions run. Chosen once, when
// the library loads: the fastest set this processor and operating system
// support, unless the environment variable CORVINA_ISA names another
// ("avx512", "avx2" or "basic"; an unknown or unsupported name is ignored).
// Every set gives the same results bit for bit; only the speed differs.
//   kBasic   the straightforward AVX2 kernels (one panel, four accumulators)
//   kAvx2    AVX2 kernels that sweep several panels per pass over the input
//   kAvx512  the same sweeps with 512-bit vectors
// Plain x86-64 code: it runs before anything is known about the processor.
#pragma once

namespace corvina {

enum class KernelSet : int { kBasic = 0, kAvx2 = 1, kAvx512 = 2 };
constexpr int kKernelSets = 3;

const char* KernelSetName(KernelSet set);  // "basic", "avx2", "avx512"
bool KernelSetSupported(KernelSet set);    // by CPUID and the OS-saved register state

// The set of the processing functions: one relaxed load per frame.
KernelSet ActiveKernelSet();
// Whether the fast sets' GELU may take tanh from the vector build of the
// library's algorithm (tanh_avx2.h): decided when the library loads, by
// comparing the two over 65,536 inputs spread across all floats. Where they
// differ (another C library), the fast sets call the library per value.
bool VectorTanhExact();

// Switches the active set (unsupported sets are ignored) and returns the set
// now active. For benchmarks and tests: no frame may be running meanwhile.
KernelSet SelectKernelSet(KernelSet set);

}  // namespace corvina
