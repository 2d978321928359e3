// The processor check as a function of CPUID register values.
#include <cstdint>

#include "module/cpu_check.h"
#include "tests/native/check.h"

namespace {

constexpr std::uint32_t kLeaf1 = (1u << 26) | (1u << 27) | (1u << 12) | (1u << 28) | (1u << 29);
constexpr std::uint32_t kLeaf7 = 1u << 5;

TEST(every_required_bit_is_needed) {
  CHECK(corvina::CpuFeaturesSupported(kLeaf1, kLeaf7));
  CHECK(corvina::CpuFeaturesSupported(0xFFFFFFFFu, 0xFFFFFFFFu));
  for (int bit : {26, 27, 12, 28, 29}) CHECK_MSG(!corvina::CpuFeaturesSupported(kLeaf1 & ~(1u << bit), kLeaf7), "leaf 1 bit %d", bit);
  CHECK(!corvina::CpuFeaturesSupported(kLeaf1, 0));
  // An AVX machine without AVX2 is refused; other bits are not consulted.
  CHECK(!corvina::CpuFeaturesSupported(0xFFFFFFFFu, ~kLeaf7));
  CHECK(corvina::CpuFeaturesSupported(kLeaf1, kLeaf7 | 0xFFFF0000u));
}

TEST(this_machine_passes) { CHECK(corvina::CpuSupported()); }

}  // namespace

CHECK_MAIN
