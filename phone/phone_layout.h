// Memory layout of the phone extractor's model block and per-stream context.
#pragma once
#include <cstddef>
#include <cstdint>

#include "../engine/corvina.h"
#include "../engine/shared_layout.h"

namespace corvina {

constexpr int kPhoneRecurrentLayers = 3;
constexpr int kPhoneResidualBlocks = 8;

// Each front convolution is followed by a 64-byte gap that the parameter file
// does not hold; the gaps stay zero.
struct alignas(64) PhoneExtractorBlock {
  f16 conv1[10 * 32];  // TapMajor [10 taps][32 out], one input channel
  std::uint8_t gap1[64];
  f16 conv2[3 * 64 * 32];  // TapPanel32, 32 -> 64
  std::uint8_t gap2[64];
  f16 conv3[3 * 128 * 64];  // 64 -> 128
  std::uint8_t gap3[64];
  f16 conv4[3 * 256 * 128];  // 128 -> 256
  std::uint8_t gap4[64];
  f16 conv5[3 * 256 * 256];  // 256 -> 256
  std::uint8_t gap5[64];
  f16 conv6[2 * 256 * 256];  // 256 -> 256, kernel 2
  std::uint8_t gap6[64];
  Dense256Weights input_dense;
  struct RecurrentLayer {
    Dense768Weights input_side;  // rows: reset, update, candidate
    Dense768Weights state_side;
  } recurrent[kPhoneRecurrentLayers];
  CausalConv7Weights causal_conv;
  f16 causal_norm_scale[kChannels];
  f16 causal_norm_shift[kChannels];
  ResidualConvBlockWeights blocks[kPhoneResidualBlocks];
  f16 final_norm_scale[kChannels];
  f16 final_norm_shift[kChannels];
  Dense256Weights output_dense;
};
static_assert(sizeof(PhoneExtractorBlock) == 10847744, "phone extractor block");
static_assert(offsetof(PhoneExtractorBlock, conv2) == 704, "");
static_assert(offsetof(PhoneExtractorBlock, conv3) == 13056, "");
static_assert(offsetof(PhoneExtractorBlock, conv4) == 62272, "");
static_assert(offsetof(PhoneExtractorBlock, conv5) == 258944, "");
static_assert(offsetof(PhoneExtractorBlock, conv6) == 652224, "");
static_assert(offsetof(PhoneExtractorBlock, input_dense) == 914432, "");
static_assert(offsetof(PhoneExtractorBlock, recurrent) == 1046016, "");
static_assert(sizeof(PhoneExtractorBlock::RecurrentLayer) == 2 * 394752, "");
static_assert(offsetof(PhoneExtractorBlock, causal_conv) == 3414528, "");
static_assert(offsetof(PhoneExtractorBlock, causal_norm_scale) == 4332544, "");
static_assert(offsetof(PhoneExtractorBlock, causal_norm_shift) == 4333056, "");
static_assert(offsetof(PhoneExtractorBlock, blocks) == 4333568, "");
static_assert(offsetof(PhoneExtractorBlock, final_norm_scale) == 10715136, "");
static_assert(offsetof(PhoneExtractorBlock, final_norm_shift) == 10715648, "");
static_assert(offsetof(PhoneExtractorBlock, output_dense) == 10716160, "");
static_assert(sizeof(PhoneExtractorBlock) - 6 * 64 == CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES, "");

// A kernel-3, stride-2 front convolution: the previous frame's last input
// position (after the previous layer's GELU) and this frame's output.
template <int InChannels, int OutPositions, int OutChannels>
struct alignas(64) FrontConvState {
  float previous_input[InChannels];
  std::int32_t position;  // guards the one-slot history; never moves
  std::uint8_t reserved[60];
  float output[OutPositions][OutChannels];
};

struct alignas(64) PhoneFrontEnd {
  float kept_samples[5];  // last five samples of the previous frame
  std::uint8_t reserved0[44];
  float conv1_output[32][32];  // 32 positions x 32 channels
  std::int32_t conv1_position;
  std::uint8_t reserved1[60];
  FrontConvState<32, 16, 64> conv2;
  FrontConvState<64, 8, 128> conv3;
  FrontConvState<128, 4, 256> conv4;
  FrontConvState<256, 2, 256> conv5;
  float conv6_output[kChannels];
};
static_assert(sizeof(FrontConvState<32, 16, 64>) == 4288, "");
static_assert(sizeof(FrontConvState<64, 8, 128>) == 4416, "");
static_assert(sizeof(FrontConvState<128, 4, 256>) == 4672, "");
static_assert(sizeof(FrontConvState<256, 2, 256>) == 3136, "");
static_assert(sizeof(PhoneFrontEnd) == 21760, "");

struct alignas(64) RecurrentRecord {
  std::uint8_t header[64];  // kept zero
  float output[kChannels];  // input of the next layer
  float input_gates[3 * kChannels];
  float state_gates[3 * kChannels];
  float state[kChannels];  // read by the next frame
  std::uint8_t trailer[64];
};
static_assert(sizeof(RecurrentRecord) == 8320, "");

struct alignas(64) PhoneContext {
  PhoneFrontEnd front;
  DenseSlot input_dense;
  RecurrentRecord recurrent[kPhoneRecurrentLayers];
  CausalConv7Slot causal_conv;
  ResidualConvBlockSlot blocks[kPhoneResidualBlocks];
  DenseSlot output_dense;
  std::uint8_t reserved[2432];
};
static_assert(sizeof(PhoneContext) == 230976, "PhoneContext1");
static_assert(offsetof(PhoneContext, input_dense) == 21760, "");
static_assert(offsetof(PhoneContext, recurrent) == 22784, "");
static_assert(offsetof(PhoneContext, causal_conv) == 47744, "");
static_assert(offsetof(PhoneContext, blocks) == 54976, "");
static_assert(offsetof(PhoneContext, output_dense) == 227520, "");

}  // namespace corvina
