// Memory layout of the waveform generator's model block and per-stream
// context. Every tensor starts on a 64-byte boundary; the block keeps the
// parameter file's order, padded where a tensor's size is not a multiple of 64.
#pragma once
#include <cstddef>
#include <cstdint>

#include "../engine/corvina.h"
#include "../engine/shared_layout.h"

namespace corvina {

constexpr int kWaveformResidualBlocks = 4;
constexpr int kStage1Channels = 128;
constexpr int kStage1Steps = 5;
constexpr int kStage2Channels = 64;
constexpr int kStage2Steps = 15;
constexpr int kBands = 4;
constexpr int kBandBins = 9;
constexpr int kSpectrumValues = kBands * kBandBins;  // 36
constexpr int kPhaseHidden = 128;
constexpr int kMergeTaps = 63;
constexpr int kOutHop = CORVINA_OUT_HOP_LENGTH;

// One square convolution of a residual stack: TapPanel32 [K][N/32][N][32], then N biases.
template <int N, int K>
struct alignas(64) DilatedConvWeights {
  f16 weight[K * N * N];
  f16 bias[N];
};

// The six convolutions of one residual block, in stage order: first and
// second convolution of stages 0, 1, 2 (dilations 1, 1, 3, 1, 5, 1).
template <int N, int K>
struct alignas(64) ResidualBlockWeights {
  DilatedConvWeights<N, K> conv[6];
};

template <int N>
struct alignas(64) ResidualStackWeights {
  ResidualBlockWeights<N, 3> k3;
  ResidualBlockWeights<N, 7> k7;
  ResidualBlockWeights<N, 11> k11;
};
static_assert(sizeof(ResidualStackWeights<128>) == 6 * (98304 + 256 + 229376 + 256 + 360448 + 256), "");
static_assert(sizeof(ResidualStackWeights<64>) == 6 * (24576 + 128 + 57344 + 128 + 90112 + 128), "");

struct alignas(64) WaveformGeneratorBlock {
  Dense256Weights phone_projection;                  // 1-2
  f16 pitch_embedding[CORVINA_PITCH_BINS][kChannels];  // 3: row b for pitch bin b
  f16 pitch_feature_projection[kChannels * 4];       // 4: Panel32 [8][4][32]
  f16 pitch_feature_bias[kChannels];                 // 5
  CausalConv7Weights pre_conv;                       // 6-7
  f16 norm1_scale[kChannels];                        // 8
  f16 norm1_shift[kChannels];                        // 9
  ResidualConvBlockWeights blocks[kWaveformResidualBlocks];  // 10-33
  f16 norm2_scale[kChannels];                        // 34
  f16 norm2_shift[kChannels];                        // 35
  CausalConv7Weights post_conv;                      // 36-37
  f16 upsample1[10 * kStage1Channels * kChannels];   // 38: TapPanel32 [10][4][256][32]
  f16 upsample1_bias[kStage1Channels];               // 39
  f16 upsample2[6 * kStage2Channels * kStage1Channels];  // 40: TapPanel32 [6][2][128][32]
  f16 upsample2_bias[kStage2Channels];               // 41
  ResidualStackWeights<kStage1Channels> stack1;      // 42-77
  ResidualStackWeights<kStage2Channels> stack2;      // 78-113
  f16 logmag_conv[7][kSpectrumValues][kStage2Channels];  // 114: [tap][out][in]
  f16 logmag_bias[kSpectrumValues];                  // 115
  std::uint8_t pad115[56];
  f16 phase_input[3 * kPhaseHidden * kStage2Channels];  // 116: Panel32, 384 x 64
  f16 phase_input_bias[3 * kPhaseHidden];               // 117
  f16 phase_recurrent[3 * kPhaseHidden * kPhaseHidden];  // 118: Panel32, 384 x 128
  f16 phase_recurrent_bias[3 * kPhaseHidden];           // 119
  f16 band_filter[kMergeTaps][kBands];               // 120: [tap][band]
  std::uint8_t pad120[8];
  // Constant tables stored at creation; reading parameters never touches them.
  float window[16];            // sin^2(pi k / 16)
  const float* window_table;   // -> window[0]
  std::uint8_t pad_window[56];
  float overlap_scale[16];     // 2/3 for the four samples of a hop, then zeros
  const float* overlap_scale_table;  // -> overlap_scale[0]
  std::uint8_t reserved[120];
};
static_assert(sizeof(WaveformGeneratorBlock) == 11463744, "waveform generator block");
static_assert(offsetof(WaveformGeneratorBlock, pitch_embedding) == 131584, "");
static_assert(offsetof(WaveformGeneratorBlock, pre_conv) == 330752, "");
static_assert(offsetof(WaveformGeneratorBlock, upsample1) == 5359616, "");
static_assert(offsetof(WaveformGeneratorBlock, logmag_bias) % 64 == 0, "");
static_assert(offsetof(WaveformGeneratorBlock, phase_input) % 64 == 0, "");
static_assert(offsetof(WaveformGeneratorBlock, band_filter) % 64 == 0, "");
static_assert(offsetof(WaveformGeneratorBlock, window) ==
                  CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES + 64, "tables follow the tensors");
static_assert(offsetof(WaveformGeneratorBlock, window_table) == offsetof(WaveformGeneratorBlock, window) + 64, "");
static_assert(offsetof(WaveformGeneratorBlock, overlap_scale_table) ==
                  offsetof(WaveformGeneratorBlock, overlap_scale) + 64, "");

// State of one dilated causal convolution: H = (K - 1) * d past input steps.
template <int N, int T, int H>
struct alignas(64) DilatedCausalConvState {
  float history[H][N];  // ring; slot `position` holds the oldest step
  float output[T][N];
  std::int32_t position;
  std::int32_t reserved;
};

template <int N, int T, int K>
struct alignas(64) ResidualBlockState {
  DilatedCausalConvState<N, T, (K - 1)> conv0;      // stage 0, dilation 1
  DilatedCausalConvState<N, T, (K - 1)> conv1;      // stage 0, dilation 1
  DilatedCausalConvState<N, T, (K - 1) * 3> conv2;  // stage 1, dilation 3
  DilatedCausalConvState<N, T, (K - 1)> conv3;      // stage 1, dilation 1
  DilatedCausalConvState<N, T, (K - 1) * 5> conv4;  // stage 2, dilation 5
  DilatedCausalConvState<N, T, (K - 1)> conv5;      // stage 2, dilation 1
};

template <int N, int T>
struct alignas(64) ResidualStackState {
  ResidualBlockState<N, T, 3> k3;
  ResidualBlockState<N, T, 7> k7;
  ResidualBlockState<N, T, 11> k11;
};
static_assert(sizeof(ResidualStackState<128, 5>) == 157824, "");
static_assert(sizeof(ResidualStackState<64, 15>) == 125568, "");

struct alignas(64) SynthesisState {
  float logmag_history[6][kStage2Channels];  // ring of the last six sub-steps
  std::int32_t logmag_position;
  std::uint8_t reserved0[60];
  float phase_state[kPhaseHidden];
  float overlap[kBands][16];
  float merge_history[kMergeTaps - 1][kBands];  // last 62 zero-stuffed positions
  std::uint8_t reserved1[32];
  std::int32_t merge_position;
  std::uint8_t reserved2[60];
  float magnitudes[kStage2Steps][kSpectrumValues];
  std::uint8_t reserved3[16];
  float phase_states[kStage2Steps][kPhaseHidden];
  float spectra[kStage2Steps][kSpectrumValues][2];
  std::uint8_t reserved4[32];
  float output[kOutHop];
};
static_assert(sizeof(SynthesisState) == 18624, "");

// The generator's inputs, copied into one aligned record per call.
struct alignas(64) WaveformFrameRecord {
  float phone[kChannels];
  std::int32_t quantized_pitch;
  std::uint8_t reserved0[60];
  float pitch_features[CORVINA_PITCH_FEATURES];
  std::uint8_t reserved1[48];
  float speaker_embedding[kChannels];
};
static_assert(sizeof(WaveformFrameRecord) == 2176, "");

struct alignas(64) WaveformContext {
  DenseSlot phone_projection;
  float pitch_embedding[kChannels];
  float pitch_feature_projection[kChannels];
  CausalConv7Slot pre_conv;
  ResidualConvBlockSlot blocks[kWaveformResidualBlocks];
  CausalConv7Slot post_conv;
  float upsample1_carry[5][kStage1Channels];
  std::int32_t upsample1_index;
  std::uint8_t reserved0[60];
  float stage1[kStage1Steps][kStage1Channels];
  ResidualStackState<kStage1Channels, kStage1Steps> stack1;
  float upsample2_carry[3][kStage2Channels];
  std::int32_t upsample2_index;
  std::uint8_t reserved1[60];
  float stage2[kStage2Steps][kStage2Channels];
  ResidualStackState<kStage2Channels, kStage2Steps> stack2;
  SynthesisState synthesis;
  WaveformFrameRecord frame;
  const void* inputs[4];  // speaker embedding, pitch features, quantized pitch, phone
  std::uint8_t reserved2[32];
  std::uint8_t reserved3[1728];
};
static_assert(sizeof(WaveformContext) == 419648, "WaveformContext1");

}  // namespace corvina
