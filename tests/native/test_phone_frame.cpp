// Phone extractor frames: the histories each frame leaves behind, silence on
// a fresh context, the exported call's output and no allocation per frame.
// (Kernels and the whole network against the scalar definitions:
// test_kernel_sets and test_golden_chain.)
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
