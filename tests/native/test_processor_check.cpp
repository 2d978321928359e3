// The one processor check, as a function of CPUID and XCR0 values: every
// required bit is needed, no other bit is consulted.
#include <cstdint>

#include "engine/kernel_set.h"
#include "tests/native/check.h"

namespace {

using corvina::FeaturesFrom;

constexpr std::uint32_t kLeaf1 = (1u << 27) | (1u << 12) | (1u << 28) | (1u << 29);  // OSXSAVE FMA AVX F16C
constexpr std::uint32_t kLeaf7Avx2 = 1u << 5;
constexpr std::uint32_t kLeaf7Avx512 = kLeaf7Avx2 | (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);
constexpr std::uint64_t kYmmState = 0x6, kZmmState = 0xE6;

TEST(every_required_bit_is_needed) {
  CHECK(FeaturesFrom(kLeaf1, kLeaf7Avx2, kYmmState).avx2);
  CHECK(!FeaturesFrom(kLeaf1, kLeaf7Avx2, kYmmState).avx512);
  CHECK(FeaturesFrom(kLeaf1, kLeaf7Avx512, kZmmState).avx512);
  CHECK(FeaturesFrom(~0u, ~0u, ~0ull).avx512);
  for (int bit : {27, 12, 28, 29}) {
    CHECK_MSG(!FeaturesFrom(kLeaf1 & ~(1u << bit), kLeaf7Avx512, kZmmState).avx2, "leaf 1 bit %d", bit);
    CHECK_MSG(!FeaturesFrom(kLeaf1 & ~(1u << bit), kLeaf7Avx512, kZmmState).avx512, "leaf 1 bit %d", bit);
  }
  for (int bit : {5, 16, 17, 30, 31})
    CHECK_MSG(!FeaturesFrom(kLeaf1, kLeaf7Avx512 & ~(1u << bit), kZmmState).avx512, "leaf 7 bit %d", bit);
  CHECK(!FeaturesFrom(kLeaf1, kLeaf7Avx512 & ~kLeaf7Avx2, kZmmState).avx2);
  // The operating system must save the registers the sets use.
  for (std::uint64_t state : {0x2ull, 0x4ull}) CHECK(!FeaturesFrom(kLeaf1, kLeaf7Avx2, state).avx2);
  for (std::uint64_t state : {0x66ull, 0xA6ull, 0xC6ull}) CHECK(!FeaturesFrom(kLeaf1, kLeaf7Avx512, state).avx512);
  // Other bits are not consulted.
  CHECK(FeaturesFrom(kLeaf1 | 0x0000FFFFu, kLeaf7Avx2 | 0x0000FF00u, kYmmState | 0x100).avx2);
}

TEST(this_machine_runs_the_engine) { CHECK(corvina::ProcessorSupported()); }

}  // namespace

CHECK_MAIN
