// The vector sets' tanh (8 and 16 lanes) against the C library's over
// all 2^32 floats, bit for bit (NaN as NaN), on two threads. Left out of the sanitizer runs:
// it is arithmetic only, and slow there.
#include <cstdint>
#include <cstdio>
#include <thread>

#include "check.h"
#include "engine/kernel_set.h"
#include "engine/kernels.h"

TEST(vector_tanh_equals_the_library_for_every_float) {
  using namespace corvina;
  if (!KernelSetSupported(KernelSet::kAvx2) || !VectorTanhExact()) {
    std::printf("vector tanh not in use here: nothing to compare\n");
    return;
  }
  constexpr std::uint64_t kAll = std::uint64_t{1} << 32, kHalf = kAll / 2;
  const struct {
    KernelSet set;
    std::uint64_t (*mismatches)(std::uint64_t, std::uint64_t, std::uint64_t);
  } widths[] = {{KernelSet::kAvx2, avx2::TanhMismatches}, {KernelSet::kAvx512, avx512::TanhMismatches}};
  for (const auto& width : widths) {
    if (!KernelSetSupported(width.set)) continue;
    std::uint64_t low = 0;
    std::thread other([&] { low = width.mismatches(0, kHalf, 1); });
    const std::uint64_t high = width.mismatches(kHalf, kAll, 1);
    other.join();
    CHECK_MSG(low + high == 0, "%s: %llu of 2^32 floats differ", KernelSetName(width.set),
              static_cast<unsigned long long>(low + high));
  }
}

CHECK_MAIN
