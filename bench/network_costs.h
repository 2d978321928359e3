// What a frame of each network costs at the least: the bytes of its model
// block (every weight read once per frame) and its multiply-adds, counted
// from the layer shapes of the layouts. A layer that runs at P positions of
// a frame costs P multiply-adds per weight; biases, normalisation and the
// activations are not counted, nor the FFTs and lag sums of the pitch front
// end and the synthesis.
#pragma once
#include <cstddef>
#include <type_traits>

#include "engine/half.h"
#include "phone/phone_layout.h"
#include "pitch/pitch_layout.h"
#include "waveform/waveform_layout.h"

namespace corvina::bench {

// The elements of an array member, named as decltype(Type::member).
template <typename Array>
constexpr std::size_t Elements() {
  return sizeof(Array) / sizeof(std::remove_all_extents_t<Array>);
}
#define CORVINA_WEIGHTS(member) Elements<decltype(member)>()

// Positions per frame of an array [positions][channels] in a context.
template <typename Array>
constexpr std::size_t Positions() {
  return std::extent_v<Array, 0>;
}

constexpr std::size_t kResidualBlockMultiplyAdds =
    CORVINA_WEIGHTS(ResidualConvBlockWeights::depthwise) + CORVINA_WEIGHTS(ResidualConvBlockWeights::expand) +
    CORVINA_WEIGHTS(ResidualConvBlockWeights::project);

constexpr std::size_t PhoneMultiplyAdds() {
  using Block = PhoneExtractorBlock;
  using Front = PhoneFrontEnd;
  return CORVINA_WEIGHTS(Block::conv1) * Positions<decltype(Front::conv1_output)>() +
         CORVINA_WEIGHTS(Block::conv2) * Positions<decltype(decltype(Front::conv2)::output)>() +
         CORVINA_WEIGHTS(Block::conv3) * Positions<decltype(decltype(Front::conv3)::output)>() +
         CORVINA_WEIGHTS(Block::conv4) * Positions<decltype(decltype(Front::conv4)::output)>() +
         CORVINA_WEIGHTS(Block::conv5) * Positions<decltype(decltype(Front::conv5)::output)>() +
         CORVINA_WEIGHTS(Block::conv6) +  // one position, its two inputs as taps
         CORVINA_WEIGHTS(Dense256Weights::weight) +
         kPhoneRecurrentLayers * 2 * CORVINA_WEIGHTS(Dense768Weights::weight) +
         CORVINA_WEIGHTS(CausalConv7Weights::weight) + kPhoneResidualBlocks * kResidualBlockMultiplyAdds +
         CORVINA_WEIGHTS(Dense256Weights::weight);
}

constexpr std::size_t PitchMultiplyAdds() {
  using Block = PitchEstimatorBlock;
  using Dense = Dense192Weights;
  constexpr std::size_t per_block = CORVINA_WEIGHTS(PitchBlockWeights::depthwise) +
                                    CORVINA_WEIGHTS(PitchBlockWeights::expand) +
                                    CORVINA_WEIGHTS(PitchBlockWeights::project);
  return 3 * CORVINA_WEIGHTS(Dense::weight) + CORVINA_WEIGHTS(Block::lag_in) +
         CORVINA_WEIGHTS(Block::temporal_conv) + kPitchBlocks * per_block + CORVINA_WEIGHTS(Block::head);
}

// A residual stack's six convolutions of each of its three blocks, at every step.
template <typename BlockWeights>
constexpr std::size_t BlockMultiplyAddsPerStep() {
  using Conv = std::remove_all_extents_t<decltype(BlockWeights::conv)>;
  return Elements<decltype(BlockWeights::conv)>() * CORVINA_WEIGHTS(Conv::weight);
}

template <int N, int Steps>
constexpr std::size_t StackMultiplyAdds() {
  using Stack = ResidualStackWeights<N>;
  return Steps * (BlockMultiplyAddsPerStep<decltype(Stack::k3)>() + BlockMultiplyAddsPerStep<decltype(Stack::k7)>() +
                  BlockMultiplyAddsPerStep<decltype(Stack::k11)>());
}

constexpr std::size_t WaveformMultiplyAdds() {
  using Block = WaveformGeneratorBlock;
  using Context = WaveformContext;
  constexpr std::size_t stage1 = Positions<decltype(Context::stage1)>();
  constexpr std::size_t stage2 = Positions<decltype(Context::stage2)>();
  return CORVINA_WEIGHTS(Dense256Weights::weight) + CORVINA_WEIGHTS(Block::pitch_feature_projection) +
         2 * CORVINA_WEIGHTS(CausalConv7Weights::weight) + kWaveformResidualBlocks * kResidualBlockMultiplyAdds +
         CORVINA_WEIGHTS(Block::upsample1) +           // one input step
         CORVINA_WEIGHTS(Block::upsample2) * stage1 +  // each stage-1 step
         StackMultiplyAdds<kStage1Channels, stage1>() + StackMultiplyAdds<kStage2Channels, stage2>() +
         (CORVINA_WEIGHTS(Block::logmag_conv) + CORVINA_WEIGHTS(Block::phase_input) +
          CORVINA_WEIGHTS(Block::phase_recurrent)) * stage2 +
         CORVINA_WEIGHTS(Block::band_filter) * Positions<decltype(SynthesisState::output)>();
}
#undef CORVINA_WEIGHTS

struct NetworkCost {
  const char* name;
  std::size_t weight_bytes;
  std::size_t multiply_adds;
};

constexpr int kNetworks = 3;
constexpr NetworkCost kNetworkCosts[kNetworks] = {
    {"phone", sizeof(PhoneExtractorBlock), PhoneMultiplyAdds()},
    {"pitch", sizeof(PitchEstimatorBlock), PitchMultiplyAdds()},
    {"waveform", sizeof(WaveformGeneratorBlock), WaveformMultiplyAdds()},
};

constexpr NetworkCost ChainCost() {
  NetworkCost chain{"chain", 0, 0};
  for (const NetworkCost& cost : kNetworkCosts) {
    chain.weight_bytes += cost.weight_bytes;
    chain.multiply_adds += cost.multiply_adds;
  }
  return chain;
}

}  // namespace corvina::bench
