// Phone extractor: its kernels and its whole network in the vector build
// against the scalar definition bit for bit, the histories each frame leaves
// behind, the exported call, and no allocation per frame.
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <vector>

#include "alloc_counter.h"
#include "check.h"
#include "engine/corvina.h"
#include "phone/phone_kernels.h"
#include "test_phone_support.h"
#include "test_support.h"

using namespace test_support;

namespace {

// Voiced-like frames with a slow envelope, some exact silence and some noise.
std::vector<float> SpeechLikeFrame(int frame, Rng& rng) {
  std::vector<float> x(kPhoneHop, 0.0f);
  if (frame % 50 >= 40) return x;  // silence
  std::normal_distribution<float> noise(0.0f, 0.02f);
  const float level = 0.3f * (0.6f + 0.4f * std::sin(0.21f * frame));
  for (int i = 0; i < kPhoneHop; ++i) {
    const float t = static_cast<float>(frame * kPhoneHop + i) / 16000.0f;
    const float voiced = std::sin(2 * 3.14159265f * 140.0f * t) + 0.5f * std::sin(2 * 3.14159265f * 420.0f * t);
    x[i] = level * voiced + noise(rng);
  }
  return x;
}

}  // namespace

TEST(front_end_layers_match_scalar_and_carry_their_history) {
  Rng rng(check::Seed());
  auto model = RandomPhoneModel(check::Seed());
  auto a = NewBlock<PhoneFrontEnd>(), b = NewBlock<PhoneFrontEnd>();
  for (int frame = 0; frame < 3; ++frame) {
    const std::vector<float> x = RandomFloats(kPhoneHop, 0.5f, rng);
    scalar::InputConvLayer(model->conv1, x.data(), a->kept_samples, &a->conv1_output[0][0]);
    avx2::InputConvLayer(model->conv1, x.data(), b->kept_samples, &b->conv1_output[0][0]);
    CHECK_MSG(SameFloats(&a->conv1_output[0][0], &b->conv1_output[0][0], 32 * 32), "frame %d", frame);
    CHECK(SameFloats(b->kept_samples, x.data() + 155, 5) && SameFloats(a->kept_samples, b->kept_samples, 5));
  }
  // Every strided shape, from a random input and a random carried position.
  struct Shape {
    const f16* weight;
    int inputs, outputs, out_positions;
  };
  const Shape shapes[] = {{model->conv2, 32, 64, 16}, {model->conv3, 64, 128, 8}, {model->conv4, 128, 256, 4},
                          {model->conv5, 256, 256, 2}};
  for (const Shape& s : shapes) {
    const std::vector<float> input = RandomFloats(static_cast<std::size_t>(2 * s.out_positions) * s.inputs, 1.0f, rng);
    std::vector<float> previous_a = RandomFloats(s.inputs, 1.0f, rng), previous_b = previous_a;
    std::vector<float> out_a(static_cast<std::size_t>(s.out_positions) * s.outputs), out_b(out_a.size());
    scalar::StridedConvLayer(s.weight, input.data(), previous_a.data(), out_a.data(), s.inputs, s.outputs,
                             s.out_positions);
    avx2::StridedConvLayer(s.weight, input.data(), previous_b.data(), out_b.data(), s.inputs, s.outputs,
                           s.out_positions);
    CHECK_MSG(SameFloats(out_a.data(), out_b.data(), out_a.size()), "%d -> %d", s.inputs, s.outputs);
    const float* last_input = input.data() + input.size() - s.inputs;
    CHECK(SameFloats(previous_a.data(), last_input, s.inputs) && SameFloats(previous_b.data(), last_input, s.inputs));
  }
  const std::vector<float> input = RandomFloats(2 * 256, 1.0f, rng);
  std::vector<float> out_a(256), out_b(256);
  scalar::PairConvLayer(model->conv6, input.data(), out_a.data());
  avx2::PairConvLayer(model->conv6, input.data(), out_b.data());
  CHECK(SameFloats(out_a.data(), out_b.data(), 256));
}

TEST(recurrent_gates_match_scalar_up_to_and_beyond_the_clamp) {
  // Gate sums reach past ±88 (sigmoid clamp) and the candidate past ±44
  // (the tanh's exponent doubles its argument).
  Rng rng(check::Seed());
  auto a = NewBlock<RecurrentRecord>(), b = NewBlock<RecurrentRecord>();
  std::uniform_real_distribution<float> wide(-100.0f, 100.0f), narrow(-3.0f, 3.0f), state(-1.0f, 1.0f);
  const float edges[] = {88.0f, -88.0f, 44.0f, -44.0f, 43.9f, -43.9f, 87.9f, -87.9f, 0.0f, -0.0f, 1e6f, -1e6f};
  for (int c = 0; c < 3 * kChannels; ++c) {
    a->input_gates[c] = c % 3 == 0 ? wide(rng) : narrow(rng);
    a->state_gates[c] = c % 5 == 0 ? edges[c % std::size(edges)] : narrow(rng);
  }
  for (int c = 0; c < kChannels; ++c) a->state[c] = state(rng);
  std::memcpy(b.get(), a.get(), sizeof *a);
  scalar::RecurrentGates(a.get());
  avx2::RecurrentGates(b.get());
  CHECK(SameFloats(a->state, b->state, 256) && SameFloats(a->output, b->output, 256));
  CHECK(SameFloats(a->state, a->output, 256));
  bool bounded = true;
  for (float h : b->state) bounded &= std::fabs(h) <= 1.001f;
  CHECK(bounded);
}

TEST(recurrent_layer_matches_scalar_over_frames) {
  Rng rng(check::Seed());
  auto model = RandomPhoneModel(check::Seed());
  auto a = NewBlock<RecurrentRecord>(), b = NewBlock<RecurrentRecord>();
  for (int frame = 0; frame < 5; ++frame) {
    const std::vector<float> v = RandomFloats(256, 2.0f, rng);
    scalar::RecurrentLayer(model->recurrent[1], v.data(), a.get());
    avx2::RecurrentLayer(model->recurrent[1], v.data(), b.get());
    CHECK_MSG(SameFloats(a->input_gates, b->input_gates, 768) && SameFloats(a->state_gates, b->state_gates, 768) &&
                  SameFloats(a->state, b->state, 256) && SameFloats(a->output, b->output, 256),
              "frame %d", frame);
  }
}

TEST(network_matches_scalar_definition_bit_for_bit) {
  constexpr int kFrames = 300;
  Rng rng(check::Seed());
  auto model = RandomPhoneModel(check::Seed());
  auto a = NewBlock<PhoneContext>(), b = NewBlock<PhoneContext>();
  int first_mismatch = -1;
  double energy = 0.0;
  for (int frame = 0; frame < kFrames && first_mismatch < 0; ++frame) {
    const std::vector<float> x = SpeechLikeFrame(frame, rng);
    const float* ya = scalar::ExtractPhone(*model, x.data(), a.get());
    const float* yb = avx2::ExtractPhone(*model, x.data(), b.get());
    if (!SameFloats(ya, yb, 256)) first_mismatch = frame;
    for (int c = 0; c < 256; ++c) energy += static_cast<double>(yb[c]) * yb[c];
  }
  CHECK_MSG(first_mismatch < 0, "first mismatch at frame %d", first_mismatch);
  CHECK_MSG(std::memcmp(a.get(), b.get(), sizeof(PhoneContext)) == 0, "contexts differ");
  // Informative outputs: of order one, and finite.
  const double rms = std::sqrt(energy / (kFrames * 256.0));
  CHECK_MSG(rms > 0.1 && rms < 10.0, "output rms %g", rms);
}

TEST(each_frame_advances_every_history_by_one) {
  constexpr int kFrames = 23;
  Rng rng(check::Seed());
  auto model = RandomPhoneModel(check::Seed());
  auto context = NewBlock<PhoneContext>();
  std::vector<float> x;
  for (int frame = 0; frame < kFrames; ++frame) {
    x = SpeechLikeFrame(frame, rng);
    avx2::ExtractPhone(*model, x.data(), context.get());
  }
  const PhoneContext& c = *context;
  const PhoneFrontEnd& f = c.front;
  CHECK(SameFloats(f.kept_samples, x.data() + 155, 5));
  // Each strided convolution keeps its input's last position, after the GELU.
  CHECK(SameFloats(f.conv2.previous_input, f.conv1_output[31], 32));
  CHECK(SameFloats(f.conv3.previous_input, f.conv2.output[15], 64));
  CHECK(SameFloats(f.conv4.previous_input, f.conv3.output[7], 128));
  CHECK(SameFloats(f.conv5.previous_input, f.conv4.output[3], 256));
  CHECK(f.conv1_position == 0 && f.conv2.position == 0 && f.conv3.position == 0 && f.conv4.position == 0 &&
        f.conv5.position == 0);
  for (int l = 0; l < kPhoneRecurrentLayers; ++l) {
    CHECK_MSG(SameFloats(c.recurrent[l].state, c.recurrent[l].output, 256), "layer %d", l);
    bool clean = true;
    for (int i = 0; i < 64; ++i) clean &= c.recurrent[l].header[i] == 0 && c.recurrent[l].trailer[i] == 0;
    CHECK_MSG(clean, "layer %d", l);
  }
  // The causal convolution's newest frame is u after the recurrent residual.
  CHECK(c.causal_conv.position == kFrames % 6);
  CHECK(SameFloats(c.causal_conv.history[(kFrames - 1) % 6], c.input_dense.output, 256));
  for (int b = 0; b < kPhoneResidualBlocks; ++b) {
    CHECK_MSG(c.blocks[b].position == kFrames % 16, "block %d", b);
    const float* input = b == 0 ? c.causal_conv.output : c.blocks[b - 1].output;
    CHECK_MSG(SameFloats(c.blocks[b].history[(kFrames - 1) % 16], input, 256), "block %d", b);
  }
}

TEST(silence_on_a_fresh_context_gives_a_zero_front_end) {
  auto model = RandomPhoneModel(check::Seed());
  auto context = NewBlock<PhoneContext>();
  const std::vector<float> zero(kPhoneHop, 0.0f);
  avx2::ExtractPhone(*model, zero.data(), context.get());
  bool all_zero = true;
  for (float v : context->front.conv6_output) all_zero &= v == 0.0f;  // normalised in place
  CHECK(all_zero);
  // The frame-rate layers still run: the output is the biases carried through.
  bool finite = true;
  for (float v : context->output_dense.output) finite &= std::isfinite(v);
  CHECK(finite);
}

TEST(exported_call_copies_exactly_the_features_and_allocates_nothing) {
  Rng rng(check::Seed());
  auto model = RandomPhoneModel(check::Seed());
  auto twin = NewBlock<PhoneContext>();
  CorvinaPhoneContext1* context = Corvina_CreatePhoneContext1();
  const auto* engine_model = reinterpret_cast<const CorvinaPhoneExtractor*>(model.get());
  std::vector<float> output(256 + 4, -7.0f);
  std::vector<std::vector<float>> frames;
  for (int frame = 0; frame < 40; ++frame) frames.push_back(SpeechLikeFrame(frame, rng));
  for (int frame = 0; frame < 4; ++frame) {  // warm-up
    Corvina_ExtractPhone1(engine_model, frames[frame].data(), output.data(), context);
    avx2::ExtractPhone(*model, frames[frame].data(), twin.get());
  }
  CHECK(SameFloats(output.data(), twin->output_dense.output, 256));
  CHECK(output[256] == -7.0f && output[259] == -7.0f);
  const auto before = alloc_counter::Count();
  for (int frame = 4; frame < 40; ++frame)
    Corvina_ExtractPhone1(engine_model, frames[frame].data(), output.data(), context);
  CHECK_MSG(alloc_counter::Count() == before, "%llu allocations in 36 frames",
            static_cast<unsigned long long>(alloc_counter::Count() - before));
  Corvina_DestroyPhoneContext1(context);
}

CHECK_MAIN
