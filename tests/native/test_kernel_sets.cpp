// Every vector kernel set (avx2, and avx512 where the processor has it)
// against the scalar definitions, bit for bit, kernel by kernel: every matrix
// shape the networks use and the odd ones, the batched sweeps for every tap
// count and batch size, the fused product-and-GELU, and the short kernels past
// the +-88 clamps. Weights are random bit patterns, subnormal halves included.
// Layers built on these are compared in test_golden_chain. Last, the processor
// check that chooses among the sets.
#include <cstdio>
#include <cstring>
#include <vector>

#include "check.h"
#include "engine/kernel_set.h"
#include "engine/kernels.h"
#include "phone/phone_kernels.h"
#include "test_support.h"
#include "waveform/waveform_kernels.h"
#include "waveform/dilated_causal_conv.h"

using namespace test_support;

namespace {

// One vector set's entry points, so each check runs over every supported set.
struct FastBuild {
  const char* name;
  KernelSet set;
  decltype(&scalar::PanelProduct) panel_product;
  decltype(&scalar::PanelAccumulate) panel_accumulate;
  decltype(&scalar::PanelProductGelu) panel_product_gelu;
  decltype(&scalar::GeluInPlace) gelu;
  decltype(&scalar::MatrixSweepN) sweep;
};

#define CORVINA_FAST_BUILD(ns, kernel_set)                                                                     \
  FastBuild {                                                                                                   \
    #ns, kernel_set, ns::PanelProduct, ns::PanelAccumulate, ns::PanelProductGelu, ns::GeluInPlace, ns::MatrixSweepN \
  }
const FastBuild kBuilds[] = {CORVINA_FAST_BUILD(avx2, KernelSet::kAvx2),
                             CORVINA_FAST_BUILD(avx512, KernelSet::kAvx512)};
#undef CORVINA_FAST_BUILD

template <typename Check>
void ForEachBuild(Check check) {
  for (const FastBuild& build : kBuilds) {
    if (KernelSetSupported(build.set)) {
      check(build);
    } else {
      std::printf("%s: not supported here, skipped\n", build.name);
    }
  }
}

// A weight buffer starting on a 64-byte boundary, as in a model block.
struct Weights {
  std::vector<f16> storage;
  f16* data;
  explicit Weights(std::size_t n) : storage(n + 32) {
    data = storage.data() + (64 - reinterpret_cast<std::uintptr_t>(storage.data()) % 64) % 64 / sizeof(f16);
  }
};

}  // namespace

// The fast GELU (its tanh a vector build of the library's, where the load-time
// check allowed it) equals the definition bit for bit: every exponent, specials, a fine ramp.
TEST(gelu_matches_the_definition_over_the_whole_float_range) {
  Rng rng(check::Seed());
  std::vector<float> x(1 << 20);
  std::uniform_int_distribution<std::uint32_t> any_bits;
  for (std::size_t i = 0; i < x.size() / 2; ++i) {
    const std::uint32_t bits = any_bits(rng);
    std::memcpy(&x[i], &bits, sizeof bits);
  }
  for (std::size_t i = x.size() / 2; i < x.size(); ++i)
    x[i] = -12.0f + 24.0f * static_cast<float>(i - x.size() / 2) / static_cast<float>(x.size() / 2);
  std::vector<float> expected = x;
  scalar::GeluInPlace(expected.data(), static_cast<int>(expected.size()));
  std::printf("vector tanh %s\n", VectorTanhExact() ? "in use" : "not in use: the library differs");
  ForEachBuild([&](const FastBuild& build) {
    std::vector<float> got = x;
    build.gelu(got.data(), static_cast<int>(got.size()));
    std::size_t differ = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
      differ += std::isnan(expected[i]) ? !std::isnan(got[i]) : !SameBits(&expected[i], &got[i], sizeof(float));
    CHECK_MSG(differ == 0, "%s: %zu of %zu values differ", build.name, differ, x.size());
  });
}

TEST(matrix_products_match_for_every_shape) {
  Rng rng(check::Seed());
  const int shapes[][2] = {{32, 1}, {32, 3}, {64, 32}, {96, 4},    {192, 192}, {192, 256},
                           {384, 192}, {576, 192}, {192, 576}, {768, 256}, {256, 768}};
  ForEachBuild([&](const FastBuild& build) {
    for (const auto& shape : shapes) {
      const int outputs = shape[0], inputs = shape[1];
      Weights weight(static_cast<std::size_t>(outputs) * inputs);
      std::vector<f16> bias(outputs), next(4096);
      RandomHalves(weight.data, static_cast<std::size_t>(outputs) * inputs, rng, 16);
      RandomHalves(bias.data(), bias.size(), rng, 16);
      const std::vector<float> x = RandomFloats(inputs, 2.0f, rng);
      const std::vector<float> start = RandomFloats(outputs, 2.0f, rng);
      std::vector<float> expected(outputs), got(outputs);
      const auto same = [&](const char* what) {
        CHECK_MSG(SameBits(expected.data(), got.data(), outputs * sizeof(float)), "%s %s %d x %d", build.name, what,
                  outputs, inputs);
      };
      scalar::PanelProduct(weight.data, bias.data(), x.data(), expected.data(), outputs, inputs);
      build.panel_product(weight.data, bias.data(), x.data(), got.data(), outputs, inputs);
      same("product");
      expected = start, got = start;
      scalar::PanelAccumulate(weight.data, x.data(), expected.data(), outputs, inputs);
      build.panel_accumulate(weight.data, x.data(), got.data(), outputs, inputs);
      same("accumulate");
      scalar::PanelProductGelu(weight.data, bias.data(), x.data(), expected.data(), outputs, inputs, nullptr, 0);
      build.panel_product_gelu(weight.data, bias.data(), x.data(), got.data(), outputs, inputs, next.data(),
                               next.size());
      same("product + GELU");
    }
  });
}

// The batched sweep takes up to 11 taps (the stacks' widest convolution) for
// up to kMaxSweepSteps steps: each tap count to that limit, each batch size,
// and the step counts of a batch's positions (the widened passes).
TEST(batched_sweeps_match_for_every_tap_count_and_batch_size) {
  Rng rng(check::Seed());
  constexpr int kOutputs = 64, kInputs = 48, kTaps = 11, kRows = kTaps * kMaxBatch;
  Weights weight(static_cast<std::size_t>(kTaps) * kOutputs * kInputs);
  RandomHalves(weight.data, static_cast<std::size_t>(kTaps) * kOutputs * kInputs, rng, 16);
  std::vector<std::vector<float>> inputs;
  for (int r = 0; r < kRows; ++r) inputs.push_back(RandomFloats(kInputs, 2.0f, rng));
  const std::vector<float> start = RandomFloats(kOutputs, 2.0f, rng);
  std::vector<int> sizes;
  for (int n = 1; n <= kMaxBatch; ++n) sizes.push_back(n);
  for (int n : {kMaxBatch + 1, 40, 75, kMaxSweepSteps}) sizes.push_back(n);
  ForEachBuild([&](const FastBuild& build) {
    for (int taps = 1; taps <= kTaps; ++taps)
      for (int n : sizes) {
        std::vector<const float*> rows(static_cast<std::size_t>(taps) * n);
        for (std::size_t r = 0; r < rows.size(); ++r) rows[r] = inputs[(r * 7) % kRows].data();
        std::vector<std::vector<float>> expected(n, start), got(n, start);
        std::vector<float*> y_expected(n), y_got(n);
        for (int s = 0; s < n; ++s) y_expected[s] = expected[s].data(), y_got[s] = got[s].data();
        const std::size_t tap_stride = static_cast<std::size_t>(kOutputs) * kInputs;
        scalar::MatrixSweepN(weight.data, tap_stride, rows.data(), taps, kInputs, y_expected.data(), n, kOutputs);
        build.sweep(weight.data, tap_stride, rows.data(), taps, kInputs, y_got.data(), n, kOutputs);
        bool same = true;
        for (int s = 0; s < n; ++s) same &= SameFloats(expected[s].data(), got[s].data(), kOutputs);
        CHECK_MSG(same, "%s: %d taps, %d steps", build.name, taps, n);
      }
  });
}

namespace {

// Values across the activations' interesting range, the +-88 clamp included.
std::vector<float> ActivationInputs(Rng& rng, std::size_t n) {
  std::vector<float> v = {0.0f, -0.0f, 1e-30f, -1e-30f, 87.3f, -87.3f, 87.4f, -87.4f, 88.0f, -88.0f,
                          88.5f, -88.5f, 100.0f, -100.0f, 1e6f, -1e6f, 43.9f, -43.9f, 44.0f, -44.0f};
  std::uniform_real_distribution<float> wide(-120.0f, 120.0f), narrow(-6.0f, 6.0f);
  while (v.size() < n) v.push_back(v.size() % 2 ? wide(rng) : narrow(rng));
  return v;
}

// The short kernels of one set whose results depend on their inputs' range;
// the plain sums and widenings run on every frame of test_golden_chain.
#define CHECK_SHORT_KERNELS(ns)                                                                                  \
  do {                                                                                                           \
    const char* name = #ns;                                                                                      \
    for (auto kernel : {std::make_pair(&scalar::SiluInPlace, &ns::SiluInPlace),                                  \
                        std::make_pair(&scalar::Normalize, &ns::Normalize)}) {                                   \
      std::vector<float> expected = x, got = x;                                                                  \
      kernel.first(expected.data(), n), kernel.second(got.data(), n);                                            \
      CHECK_MSG(SameFloats(expected.data(), got.data(), n), "%s element-wise", name);                           \
    }                                                                                                            \
    std::vector<float> ys(n), yv(n);                                                                             \
    scalar::SiluCopy(x.data(), ys.data(), n), ns::SiluCopy(x.data(), yv.data(), n);                              \
    CHECK_MSG(SameFloats(ys.data(), yv.data(), n), "%s SiluCopy", name);                                         \
    ys = x, yv = x;                                                                                              \
    scalar::NormalizeScaleShift(ys.data(), halves.data(), halves.data() + 1, 256);                               \
    ns::NormalizeScaleShift(yv.data(), halves.data(), halves.data() + 1, 256);                                   \
    CHECK_MSG(SameFloats(ys.data(), yv.data(), n), "%s NormalizeScaleShift", name);                              \
    alignas(32) float g[6 * kPhaseHidden], hs[kPhaseHidden], hv[kPhaseHidden]; /* the unit's aligned rows */    \
    std::memcpy(g, x.data(), sizeof g);                                                                          \
    std::memcpy(hs, b.data(), sizeof hs), std::memcpy(hv, b.data(), sizeof hv);                                  \
    scalar::PhaseGates(g, g + 3 * kPhaseHidden, hs), ns::PhaseGates(g, g + 3 * kPhaseHidden, hv);                \
    CHECK_MSG(SameFloats(hs, hv, kPhaseHidden), "%s PhaseGates", name);                                          \
    auto rs = NewBlock<RecurrentRecord>(), rv = NewBlock<RecurrentRecord>();                                     \
    std::memcpy(rs->input_gates, x.data(), sizeof rs->input_gates);                                             \
    std::memcpy(rs->state_gates, x.data() + 3 * kChannels, sizeof rs->state_gates);                             \
    std::memcpy(rs->state, b.data(), sizeof rs->state);                                                          \
    std::memcpy(rv.get(), rs.get(), sizeof(RecurrentRecord));                                                    \
    scalar::RecurrentGates(rs.get()), ns::RecurrentGates(rv.get());                                              \
    CHECK_MSG(SameBits(rs.get(), rv.get(), sizeof(RecurrentRecord)), "%s RecurrentGates", name);                 \
    float hist_s[6][kStage2Channels], hist_v[6][kStage2Channels];                                                \
    std::memcpy(hist_s, b.data(), sizeof hist_s), std::memcpy(hist_v, b.data(), sizeof hist_v);                  \
    std::int32_t pos_s = 4, pos_v = 4;                                                                           \
    float mag_s[kStage2Steps][kSpectrumValues], mag_v[kStage2Steps][kSpectrumValues];                            \
    for (int frame = 0; frame < 2; ++frame) {                                                                    \
      const float* in = a.data() + frame * kStage2Steps * kStage2Channels;                                       \
      scalar::LogMagnitudes(wave->logmag_conv, wave->logmag_bias, in, hist_s, &pos_s, mag_s);                   \
      ns::LogMagnitudes(wave->logmag_conv, wave->logmag_bias, in, hist_v, &pos_v, mag_v);                       \
      CHECK_MSG(SameBits(mag_s, mag_v, sizeof mag_s) && SameBits(hist_s, hist_v, sizeof hist_s), "%s LogMagnitudes", name); \
    }                                                                                                            \
  } while (0)

}  // namespace

TEST(short_kernels_match_past_the_clamps) {
  Rng rng(check::Seed());
  constexpr int n = 4096;
  const std::vector<float> x = ActivationInputs(rng, n);
  const std::vector<float> a = RandomFloats(n, 4.0f, rng), b = RandomFloats(n, 1.0f, rng);
  std::vector<f16> halves(n);
  FillHalves(halves.data(), n, 60.0f, rng);
  auto wave = NewBlock<WaveformGeneratorBlock>();
  FillHalves(&wave->logmag_conv[0][0][0], sizeof wave->logmag_conv / sizeof(f16), 0.1f, rng);
  FillHalves(wave->logmag_bias, kSpectrumValues, 3.0f, rng);
  const float far[] = {-95.0f, -88.0f, -87.0f, 87.0f, 88.0f, 95.0f};  // sums near and past +-88
  for (int o = 0; o < 6; ++o) wave->logmag_bias[o] = ToHalf(far[o]);
  CHECK_SHORT_KERNELS(avx2);
  if (KernelSetSupported(KernelSet::kAvx512)) CHECK_SHORT_KERNELS(avx512);
}

// The one processor check, as a function of CPUID and XCR0 values: every
// required bit is needed, no other bit is consulted.
TEST(every_required_processor_bit_is_needed) {
  constexpr std::uint32_t kLeaf1 = (1u << 27) | (1u << 12) | (1u << 28) | (1u << 29);  // OSXSAVE FMA AVX F16C
  constexpr std::uint32_t kLeaf7Avx2 = 1u << 5;
  constexpr std::uint32_t kLeaf7Avx512 = kLeaf7Avx2 | (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);
  constexpr std::uint64_t kYmmState = 0x6, kZmmState = 0xE6;
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
  CHECK(ProcessorSupported());
}

CHECK_MAIN
