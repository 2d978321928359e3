// The fast sets' vector tanh against the C library's over all 2^32 floats,
// bit for bit (NaN as NaN), on two threads. Left out of the sanitizer runs:
// it is arithmetic only, and slow there.
#include <cstdint>
#include <cstdio>
#include <thread>

#include "check.h"
#include "engine/kernel_set.h"

namespace corvina {
namespace tanh_avx2 {
std::uint64_t CountMismatches(std::uint64_t first, std::uint64_t end, std::uint64_t stride);
}
}  // namespace corvina

TEST(vector_tanh_equals_the_library_for_every_float) {
  using namespace corvina;
  if (!KernelSetSupported(KernelSet::kAvx2) || !VectorTanhExact()) {
    std::printf("vector tanh not in use here: nothing to compare\n");
    return;
  }
  constexpr std::uint64_t kAll = std::uint64_t{1} << 32, kHalf = kAll / 2;
  std::uint64_t low = 0;
  std::thread other([&] { low = tanh_avx2::CountMismatches(0, kHalf, 1); });
  const std::uint64_t high = tanh_avx2::CountMismatches(kHalf, kAll, 1);
  other.join();
  CHECK_MSG(low + high == 0, "%llu of 2^32 floats differ", static_cast<unsigned long long>(low + high));
}

CHECK_MAIN
