// A randomly weighted phone extractor whose activations stay of order one
// over long streams (no saturated gates, no dying state), for the native tests.
#pragma once
#include "phone/phone_layout.h"
#include "test_support.h"

namespace test_support {

template <std::size_t N>
void Fill(f16 (&out)[N], float scale, Rng& rng, float offset = 0.0f) {
  FillHalves(out, N, scale, rng, offset);
}

inline void FillDense(Dense256Weights& d, float gain, Rng& rng) {
  FillMatrix(d.weight, 256, gain, rng);
  Fill(d.bias, 0.17f, rng);
}

inline Block<PhoneExtractorBlock> RandomPhoneModel(Rng& rng) {
  auto m = NewBlock<PhoneExtractorBlock>();
  FillMatrix(m->conv1, 10, 6.0f, rng);
  FillMatrix(m->conv2, 32 * 3, 2.0f, rng);
  FillMatrix(m->conv3, 64 * 3, 2.0f, rng);
  FillMatrix(m->conv4, 128 * 3, 2.0f, rng);
  FillMatrix(m->conv5, 256 * 3, 2.0f, rng);
  FillMatrix(m->conv6, 256 * 2, 2.0f, rng);
  FillDense(m->input_dense, 1.0f, rng);
  for (auto& layer : m->recurrent) {
    FillMatrix(layer.input_side.weight, 256, 1.0f, rng);
    Fill(layer.input_side.bias, 0.17f, rng);
    FillMatrix(layer.state_side.weight, 256, 0.9f, rng);
    Fill(layer.state_side.bias, 0.17f, rng);
  }
  FillMatrix(m->causal_conv.weight, 256 * 7, 1.0f, rng);
  Fill(m->causal_conv.bias, 0.17f, rng);
  Fill(m->causal_norm_scale, 0.17f, rng, 1.0f);
  Fill(m->causal_norm_shift, 0.17f, rng);
  for (auto& b : m->blocks) {
    FillMatrix(b.depthwise, 17, 1.0f, rng);
    Fill(b.depthwise_bias, 0.17f, rng);
    FillMatrix(b.expand, 256, 1.0f, rng);
    Fill(b.expand_bias, 0.17f, rng);
    FillMatrix(b.project, 768, 0.7f, rng);
    Fill(b.project_bias, 0.17f, rng);
  }
  Fill(m->final_norm_scale, 0.17f, rng, 1.0f);
  Fill(m->final_norm_shift, 0.17f, rng);
  FillDense(m->output_dense, 1.0f, rng);
  return m;
}

inline Block<PhoneExtractorBlock> RandomPhoneModel(unsigned seed) {
  Rng rng(seed);
  return RandomPhoneModel(rng);
}

}  // namespace test_support
