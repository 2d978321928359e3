// Shared layer kernels: the vector build against the scalar definition bit for
// bit, the ring positions and tap order of the streaming layers, and the table
// exponential and its activations against their formulas.
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <vector>

#include "check.h"
#include "engine/activations_scalar.h"
#include "engine/kernels.h"
#include "test_support.h"

using namespace test_support;

namespace {

// Finite halves of random bit patterns with magnitudes below 16, subnormals included.
void RandomHalves(f16* out, std::size_t n, Rng& rng) { test_support::RandomHalves(out, n, rng, 18); }

// Values across the activations' interesting range, the ±88 clamp included.
std::vector<float> ActivationInputs(Rng& rng) {
  std::vector<float> v = {0.0f, -0.0f, 1e-30f, -1e-30f, 87.3f, -87.3f, 87.4f, -87.4f, 88.0f, -88.0f,
                          88.5f, -88.5f, 100.0f, -100.0f, 1e6f, -1e6f, 43.9f, -43.9f, 44.0f, -44.0f};
  std::uniform_real_distribution<float> wide(-120.0f, 120.0f), narrow(-6.0f, 6.0f);
  while (v.size() < 1024) v.push_back(v.size() % 2 ? wide(rng) : narrow(rng));
  return v;
}

}  // namespace

TEST(panel_product_matches_scalar_for_every_shape) {
  Rng rng(check::Seed());
  const int shapes[][2] = {{32, 1}, {32, 3}, {64, 32}, {256, 256}, {768, 256}, {256, 768}};
  for (const auto& shape : shapes) {
    const int outputs = shape[0], inputs = shape[1];
    // Panel runs are loaded aligned, as in a model block.
    std::vector<f16> storage(static_cast<std::size_t>(outputs) * inputs + 32);
    f16* weight = storage.data() + (64 - reinterpret_cast<std::uintptr_t>(storage.data()) % 64) % 64 / 2;
    std::vector<f16> bias(outputs);
    RandomHalves(weight, static_cast<std::size_t>(outputs) * inputs, rng);
    RandomHalves(bias.data(), bias.size(), rng);
    const std::vector<float> x = RandomFloats(inputs, 4.0f, rng);
    std::vector<float> expected(outputs), got(outputs);
    scalar::PanelProduct(weight, bias.data(), x.data(), expected.data(), outputs, inputs);
    avx2::PanelProduct(weight, bias.data(), x.data(), got.data(), outputs, inputs);
    CHECK_MSG(SameFloats(expected.data(), got.data(), outputs), "%d x %d", outputs, inputs);
  }
}

TEST(elementwise_kernels_match_scalar) {
  Rng rng(check::Seed());
  const std::vector<float> inputs = ActivationInputs(rng);
  const int n = static_cast<int>(inputs.size());
  for (auto kernel : {std::make_pair(&scalar::GeluInPlace, &avx2::GeluInPlace),
                      std::make_pair(&scalar::SiluInPlace, &avx2::SiluInPlace),
                      std::make_pair(&scalar::Normalize, &avx2::Normalize)}) {
    std::vector<float> expected = inputs, got = inputs;
    kernel.first(expected.data(), n);
    kernel.second(got.data(), n);
    CHECK(SameFloats(expected.data(), got.data(), n));
  }
  std::vector<f16> scale(256), shift(256);
  RandomHalves(scale.data(), 256, rng);
  RandomHalves(shift.data(), 256, rng);
  std::vector<float> expected = RandomFloats(256, 3.0f, rng), got = expected;
  scalar::NormalizeScaleShift(expected.data(), scale.data(), shift.data(), 256);
  avx2::NormalizeScaleShift(got.data(), scale.data(), shift.data(), 256);
  CHECK(SameFloats(expected.data(), got.data(), 256));
}

TEST(normalize_gives_zero_mean_unit_variance_and_zero_for_silence) {
  Rng rng(check::Seed());
  std::vector<float> x = RandomFloats(256, 5.0f, rng);
  for (float& v : x) v += 2.0f;
  avx2::Normalize(x.data(), 256);
  double sum = 0.0, squares = 0.0;
  for (float v : x) sum += v, squares += static_cast<double>(v) * v;
  CHECK_MSG(std::fabs(sum / 256) < 1e-6 && std::fabs(squares / 256 - 1.0) < 1e-5, "mean %g, E[x^2] %g", sum / 256,
            squares / 256);
  std::vector<float> silence(256, 0.0f);
  avx2::Normalize(silence.data(), 256);
  for (float v : silence) CHECK(v == 0.0f);
}

TEST(dense_and_causal_conv_match_scalar_and_advance_their_ring) {
  Rng rng(check::Seed());
  auto dense = NewBlock<Dense256Weights>();
  auto conv = NewBlock<CausalConv7Weights>();
  FillHalves(dense->weight, std::size(dense->weight), 0.1f, rng);
  FillHalves(dense->bias, std::size(dense->bias), 0.1f, rng);
  FillHalves(conv->weight, std::size(conv->weight), 0.05f, rng);
  FillHalves(conv->bias, std::size(conv->bias), 0.1f, rng);
  auto dense_scalar = NewBlock<DenseSlot>(), dense_vector = NewBlock<DenseSlot>();
  auto slot_scalar = NewBlock<CausalConv7Slot>(), slot_vector = NewBlock<CausalConv7Slot>();
  std::vector<std::vector<float>> frames;
  for (int f = 0; f < 9; ++f) {
    frames.push_back(RandomFloats(256, 1.0f, rng));
    const float* a = scalar::DenseLayer(*dense, frames.back().data(), dense_scalar.get());
    const float* b = avx2::DenseLayer(*dense, frames.back().data(), dense_vector.get());
    CHECK_MSG(a == dense_scalar->output && b == dense_vector->output && SameFloats(a, b, 256), "dense, frame %d", f);
    a = scalar::CausalConv7Layer(*conv, frames.back().data(), slot_scalar.get());
    b = avx2::CausalConv7Layer(*conv, frames.back().data(), slot_vector.get());
    CHECK_MSG(a == slot_scalar->output && b == slot_vector->output && SameFloats(a, b, 256), "conv, frame %d", f);
    CHECK_MSG(slot_vector->position == (f + 1) % 6 && slot_scalar->position == slot_vector->position, "frame %d",
              f);
    if (f == 6) {  // seven calls: position back at 1, the ring holds frames 1..6 oldest first
      for (int t = 0; t < 6; ++t)
        CHECK_MSG(SameFloats(slot_vector->history[(1 + t) % 6], frames[1 + t].data(), 256), "tap %d", t);
    }
  }
  CHECK(SameFloats(&slot_scalar->history[0][0], &slot_vector->history[0][0], 6 * 256));
}

TEST(causal_conv_taps_meet_the_oldest_frame_first) {
  // W_t = (t + 1) I: an impulse at frame 0 comes out as b + (7 - L) x at
  // frame L, and once it has left the ring the output is the bias alone.
  Rng rng(check::Seed());
  auto conv = NewBlock<CausalConv7Weights>();
  for (int t = 0; t < kCausalConvTaps; ++t)
    for (int o = 0; o < kChannels; ++o)
      conv->weight[t * kChannels * kChannels + (o / kPanel) * kChannels * kPanel + o * kPanel + o % kPanel] =
          ToHalf(static_cast<float>(t + 1));
  FillHalves(conv->bias, std::size(conv->bias), 1.0f, rng);
  auto slot = NewBlock<CausalConv7Slot>();
  const std::vector<float> impulse = RandomFloats(256, 1.0f, rng), zero(256, 0.0f);
  for (int lag = 0; lag < 9; ++lag) {
    const float* y = avx2::CausalConv7Layer(*conv, lag == 0 ? impulse.data() : zero.data(), slot.get());
    const float gain = lag < 7 ? static_cast<float>(7 - lag) : 0.0f;
    bool ok = true;
    for (int c = 0; c < kChannels; ++c) ok &= y[c] == std::fma(gain, impulse[c], HalfToFloat(conv->bias[c]));
    CHECK_MSG(ok, "lag %d", lag);
  }
}

namespace {

void RandomResidualBlock(ResidualConvBlockWeights* w, Rng& rng) {
  FillHalves(w->depthwise, std::size(w->depthwise), 0.3f, rng);
  FillHalves(w->depthwise_bias, std::size(w->depthwise_bias), 0.1f, rng);
  FillHalves(w->expand, std::size(w->expand), 0.1f, rng);
  FillHalves(w->expand_bias, std::size(w->expand_bias), 0.1f, rng);
  FillHalves(w->project, std::size(w->project), 0.05f, rng);
  FillHalves(w->project_bias, std::size(w->project_bias), 0.1f, rng);
}

}  // namespace

TEST(residual_block_matches_scalar_over_a_ring_turn) {
  Rng rng(check::Seed());
  auto weights = NewBlock<ResidualConvBlockWeights>();
  RandomResidualBlock(weights.get(), rng);
  auto slot_scalar = NewBlock<ResidualConvBlockSlot>(), slot_vector = NewBlock<ResidualConvBlockSlot>();
  for (int f = 0; f < 20; ++f) {
    const std::vector<float> x = RandomFloats(256, 2.0f, rng);
    scalar::ResidualConvBlock(*weights, x.data(), slot_scalar.get());
    avx2::ResidualConvBlock(*weights, x.data(), slot_vector.get());
    CHECK_MSG(SameFloats(slot_scalar->output, slot_vector->output, 256) &&
                  SameFloats(slot_scalar->hidden, slot_vector->hidden, 768),
              "frame %d", f);
    CHECK_MSG(slot_vector->position == (f + 1) % 16 && slot_scalar->position == slot_vector->position, "frame %d", f);
  }
  CHECK(SameFloats(&slot_scalar->history[0][0], &slot_vector->history[0][0], 16 * 256));
}

TEST(residual_block_depthwise_taps_meet_the_oldest_frame_first) {
  // D_t = t + 1, no bias: an impulse at frame 0 is mixed as (17 - L) x at frame L.
  Rng rng(check::Seed());
  auto weights = NewBlock<ResidualConvBlockWeights>();
  for (int t = 0; t < kResidualTaps; ++t)
    for (int c = 0; c < kChannels; ++c) weights->depthwise[t * kChannels + c] = ToHalf(static_cast<float>(t + 1));
  auto slot = NewBlock<ResidualConvBlockSlot>();
  const std::vector<float> impulse = RandomFloats(256, 1.0f, rng), zero(256, 0.0f);
  for (int lag = 0; lag < 17; ++lag) {
    avx2::ResidualConvBlock(*weights, lag == 0 ? impulse.data() : zero.data(), slot.get());
    // Expected: (17 - lag) x normalised, in double.
    double mean = 0.0, squares = 0.0;
    std::vector<double> m(256);
    for (int c = 0; c < 256; ++c) m[c] = (17 - lag) * static_cast<double>(impulse[c]);
    for (double v : m) mean += v / 256, squares += v * v / 256;
    const double r = 1.0 / std::sqrt(squares + 1e-5 - mean * mean);
    double worst = 0.0;
    for (int c = 0; c < 256; ++c) worst = std::fmax(worst, std::fabs(slot->mixed[c] - (m[c] - mean) * r));
    CHECK_MSG(worst < 1e-5, "lag %d: %g", lag, worst);
  }
}

TEST(residual_block_with_constant_depthwise_output_normalises_to_zero) {
  // Depthwise weights zero and bias 0.5 everywhere: mean 0.5, variance 1e-5,
  // the normalised vector is exactly zero and output = b2 + W2 GELU(b1) + x.
  Rng rng(check::Seed());
  auto weights = NewBlock<ResidualConvBlockWeights>();
  RandomResidualBlock(weights.get(), rng);
  std::memset(weights->depthwise, 0, sizeof weights->depthwise);
  for (f16& d : weights->depthwise_bias) d = ToHalf(0.5f);
  auto slot = NewBlock<ResidualConvBlockSlot>();
  const std::vector<float> x = RandomFloats(256, 1.0f, rng);
  avx2::ResidualConvBlock(*weights, x.data(), slot.get());
  bool zero = true;
  for (float v : slot->mixed) zero &= v == 0.0f;
  CHECK(zero);
  std::vector<double> hidden(768);
  for (int o = 0; o < 768; ++o) {
    const double b = HalfToFloat(weights->expand_bias[o]);
    hidden[o] = 0.5 * b * (1.0 + std::tanh(0.7978846 * (b + 0.044715 * b * b * b)));
  }
  double worst = 0.0;
  for (int o = 0; o < 256; ++o) {
    double y = HalfToFloat(weights->project_bias[o]) + x[o];
    for (int i = 0; i < 768; ++i)
      y += HalfToFloat(weights->project[(o / kPanel) * 768 * kPanel + i * kPanel + o % kPanel]) * hidden[i];
    worst = std::fmax(worst, std::fabs(slot->output[o] - y));
  }
  CHECK_MSG(worst < 1e-5, "%g", worst);
}

namespace {

// 2^(k/1024) (1 + r) from the table entry, in double, rounded once to single.
// Valid while the exponent field stays normal (v above about -87.34).
float ExpFormula(float v) {
  const float clamped = std::fmin(std::fmax(v, -88.0f), 88.0f);
  const long k = std::lrint(static_cast<double>(clamped * kExpScale));
  const double one_plus_r = static_cast<float>(static_cast<double>(clamped + 1.0f) - k * static_cast<double>(kExpStep));
  const long floor_k = k >= 0 ? k / 1024 : -((-k + 1023) / 1024);
  const double mantissa = g_exp_mantissa[k - floor_k * 1024];
  return static_cast<float>(std::ldexp(mantissa, static_cast<int>(floor_k)) * one_plus_r);
}

}  // namespace

TEST(exp_table_follows_its_formula_up_to_and_beyond_the_upper_clamp) {
  const float points[] = {0.0f,   1.0f,   -1.0f,  0.3466f, 10.0f, -10.0f, 50.5f,     -50.5f,
                          87.3f,  -87.3f, 87.99f, 88.0f,   88.01f, 90.0f, 1e30f, INFINITY};
  for (float v : points) CHECK_MSG(ExpTable(v) == ExpFormula(v), "v = %g: %g vs %g", v, ExpTable(v), ExpFormula(v));
  CHECK(ExpTable(88.0f) == ExpTable(1e30f) && std::isfinite(ExpTable(88.0f)));
  // Against the true exponential: v + 1 and k ln2/1024 are rounded in single
  // precision, so the relative error grows with |v|, to about 1e-5 at 80.
  for (float v = -80.0f; v <= 80.0f; v += 0.37f)
    CHECK_MSG(std::fabs(ExpTable(v) / std::exp(static_cast<double>(v)) - 1.0) < 2e-7 * (1.0 + std::fabs(v)), "v = %g",
              v);
}

TEST(exp_table_below_minus_87_34_keeps_only_the_table_fraction) {
  // There the exponent field is zero: the bits form the subnormal
  // (T - 1) 2^-126, times 1 + r. A sigmoid or tanh never sees the difference
  // from 2^(k/1024)(1 + r): both are far below half an ulp of 1.
  for (float v : {-87.34f, -87.5f, -88.0f, -88.01f, -100.0f, -1e30f, -INFINITY}) {
    const float clamped = std::fmax(v, -88.0f);
    const long k = std::lrint(static_cast<double>(clamped * kExpScale));
    const double one_plus_r =
        static_cast<float>(static_cast<double>(clamped + 1.0f) - k * static_cast<double>(kExpStep));
    const double fraction = g_exp_mantissa[k + 127 * 1024] - 1.0;
    const float expected = static_cast<float>(std::ldexp(fraction, -126) * one_plus_r);
    CHECK_MSG(ExpTable(v) == expected, "v = %g: %g vs %g", v, ExpTable(v), expected);
    CHECK(1.0f + ExpTable(v) == 1.0f && 1.0f + ExpFormula(clamped) == 1.0f);
  }
}

TEST(sigmoid_and_recurrent_tanh_stay_within_the_reciprocal_estimate) {
  // The approximate reciprocal is good to 1.5 * 2^-12 relative; beyond ±88
  // the clamped exponential still gives the saturated values.
  // The exponential's own error (up to about 1e-5 relative at |x| = 88) adds a little.
  const double bound = 1.5 / 4096 + 3e-5;
  for (float x = -120.0f; x <= 120.0f; x += 0.173f) {
    const double sigmoid = 1.0 / (1.0 + std::exp(-static_cast<double>(x)));
    CHECK_MSG(std::fabs(Sigmoid(x) - sigmoid) <= bound * sigmoid + 1e-30, "sigmoid(%g) = %g", x, Sigmoid(x));
    CHECK_MSG(std::fabs(RecurrentTanh(x) - std::tanh(static_cast<double>(x))) <= 2 * bound, "tanh(%g) = %g", x,
              RecurrentTanh(x));
  }
  CHECK(Sigmoid(88.0f) == Sigmoid(1e6f) && Sigmoid(-88.0f) == Sigmoid(-1e6f));
}

CHECK_MAIN
