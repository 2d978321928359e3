// The per-frame sequence of the phone extractor as the scalar definition runs
// it (phone_network_scalar.cpp). The vector sets run the same sequence for a
// batch of streams (ExtractPhoneN, phone_fast.inc).
#pragma once
#include "../engine/kernels.h"
#include "phone_kernels.h"

namespace corvina {

#define CORVINA_PHONE_KERNEL_SET(Name, isa)                                  \
  struct Name {                                                              \
    static constexpr auto InputConvLayer = &isa::InputConvLayer;             \
    static constexpr auto StridedConvLayer = &isa::StridedConvLayer;         \
    static constexpr auto PairConvLayer = &isa::PairConvLayer;               \
    static constexpr auto RecurrentLayer = &isa::RecurrentLayer;             \
    static constexpr auto Normalize = &isa::Normalize;                       \
    static constexpr auto NormalizeScaleShift = &isa::NormalizeScaleShift;   \
    static constexpr auto GeluInPlace = &isa::GeluInPlace;                   \
    static constexpr auto GeluInPlacePrefetching = &isa::GeluInPlacePrefetching; \
    static constexpr auto DenseLayer = &isa::DenseLayer;                     \
    static constexpr auto CausalConv7Layer = &isa::CausalConv7Layer;         \
    static constexpr auto ResidualConvBlock = &isa::ResidualConvBlock;       \
  };
CORVINA_PHONE_KERNEL_SET(ScalarPhoneKernels, scalar)
#undef CORVINA_PHONE_KERNEL_SET

namespace {  // one instantiation per translation unit, each with its own flags

template <typename K, int InChannels, int OutPositions, int OutChannels>
const float* FrontConv(const f16* weight, const float* input,
                       FrontConvState<InChannels, OutPositions, OutChannels>* state) {
  K::StridedConvLayer(weight, input, state->previous_input, &state->output[0][0], InChannels, OutChannels,
                      OutPositions);
  return &state->output[0][0];
}

// 160 samples -> one 256-vector (after its GELU, before the normalisation).
template <typename K>
float* RunFrontEnd(const PhoneExtractorBlock& model, const float* x, PhoneFrontEnd* front) {
  K::InputConvLayer(model.conv1, x, front->kept_samples, &front->conv1_output[0][0]);
  const float* a = FrontConv<K>(model.conv2, &front->conv1_output[0][0], &front->conv2);
  a = FrontConv<K>(model.conv3, a, &front->conv3);
  a = FrontConv<K>(model.conv4, a, &front->conv4);
  a = FrontConv<K>(model.conv5, a, &front->conv5);
  K::PairConvLayer(model.conv6, a, front->conv6_output);
  return front->conv6_output;
}

template <typename K>
const float* RunPhoneNetwork(const PhoneExtractorBlock& model, const float* x, PhoneContext* context) {
  float* features = RunFrontEnd<K>(model, x, &context->front);
  K::Normalize(features, kChannels);
  float* u = K::DenseLayer(model.input_dense, features, &context->input_dense);

  const float* v = u;
  for (int l = 0; l < kPhoneRecurrentLayers; ++l) {
    K::RecurrentLayer(model.recurrent[l], v, &context->recurrent[l]);
    v = context->recurrent[l].output;
  }
  for (int c = 0; c < kChannels; ++c) u[c] += v[c];  // residual around the recurrent stack

  float* y = K::CausalConv7Layer(model.causal_conv, u, &context->causal_conv);
  K::NormalizeScaleShift(y, model.causal_norm_scale, model.causal_norm_shift, kChannels);
  const float* block_input = y;
  for (int b = 0; b < kPhoneResidualBlocks; ++b) {
    K::ResidualConvBlock(model.blocks[b], block_input, &context->blocks[b]);
    block_input = context->blocks[b].output;
  }
  float* last = context->blocks[kPhoneResidualBlocks - 1].output;
  K::NormalizeScaleShift(last, model.final_norm_scale, model.final_norm_shift, kChannels);
  K::GeluInPlacePrefetching(last, kChannels, model.output_dense.weight, kChannels * kChannels);
  return K::DenseLayer(model.output_dense, last, &context->output_dense);
}

}  // namespace
}  // namespace corvina
