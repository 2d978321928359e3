// Which instruction set the processing functions run. Chosen once, when the
// library loads: the fastest set this processor and operating system
// support, unless the environment variable CORVINA_ISA names another
// ("avx512" or "avx2"; an unknown or unsupported name is ignored). Every set
// gives the same results bit for bit as the scalar definitions (a test-only
// library); only the speed differs.
//   kAvx2    256-bit sweeps over several panels per pass (engine/isa_avx2.cpp)
//   kAvx512  the same sweeps with 512-bit vectors (engine/isa_avx512.cpp)
// This file's code is plain x86-64: it is the one processor check, and it
// runs before anything is known about the processor.
#pragma once
#include <cstdint>

namespace corvina {

struct PhoneExtractorBlock;
struct PhoneContext;
struct PitchEstimatorBlock;
struct PitchContext;
struct WaveformGeneratorBlock;
struct WaveformContext;

// The networks of one instruction set, each for one frame of n streams
// (1 <= n <= kMaxBatch of kernels.h); a lone stream is a batch of one.
struct KernelTable {
  const char* name;
  // Stream s's 256 features end in contexts[s]->output_dense.output.
  void (*extract_phone)(const PhoneExtractorBlock& model, const float* const* x, PhoneContext* const* contexts,
                        int n);
  // From each context's front-end features to its 384 bin scores (contexts[s]->scores).
  void (*pitch_network)(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
  // From each context's input table to its 240 samples (contexts[s]->synthesis.output).
  void (*generate_waveform)(const WaveformGeneratorBlock& model, int n, WaveformContext* const* contexts);
};

// The scalar definitions' table: in the test-only library (isa_scalar.cpp),
// the reference every set is compared with.
extern const KernelTable kScalarKernels;

enum class KernelSet : int { kAvx2 = 0, kAvx512 = 1 };
constexpr int kKernelSets = 2;

const char* KernelSetName(KernelSet set);  // "avx2", "avx512"
bool KernelSetSupported(KernelSet set);    // by CPUID and the OS-saved register state

// What the sets need, from CPUID leaf 1 ECX, leaf 7 EBX and the OS-saved
// register state XCR0 (read only when leaf 1 has OSXSAVE).
struct ProcessorFeatures {
  bool avx2 = false;    // AVX, AVX2, FMA, F16C with YMM state saved
  bool avx512 = false;  // and AVX-512 F, DQ, BW, VL with ZMM and mask state saved
};
ProcessorFeatures FeaturesFrom(std::uint32_t leaf1_ecx, std::uint32_t leaf7_ebx, std::uint64_t xcr0);

// Whether the engine can run here at all (the AVX2 set's features). The
// module refuses to import without them; the C interface's create functions
// print "Unsupported CPU." on stderr and abort (RequireSupportedProcessor).
bool ProcessorSupported();
void RequireSupportedProcessor();

// The table of the processing functions: one relaxed load per frame.
const KernelTable& ActiveKernels();
KernelSet ActiveKernelSet();
// Whether the vector sets' GELU may take tanh from the vector build of the
// library's algorithm (vector_tanh.h): decided when the library loads, by
// comparing the two over 65,536 inputs spread across all floats. Where they
// differ (another C library), the sets call the library per value.
bool VectorTanhExact();

// Switches the active set (unsupported sets are ignored) and returns the set
// now active. For benchmarks and tests: no frame may be running meanwhile.
KernelSet SelectKernelSet(KernelSet set);

}  // namespace corvina
