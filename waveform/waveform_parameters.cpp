// The waveform generator's parameter file, tensor by tensor in file order,
// and the constant tables stored at creation.
#include "waveform_parameters.h"

#include <cstring>

#include "../engine/parameter_reader.h"

namespace corvina {

namespace {

void StoreBits(float* table, const std::uint32_t* bits, int count) {
  std::memcpy(table, bits, sizeof(float) * count);
}

template <int N, int K>
void ReadResidualBlock(ResidualBlockWeights<N, K>* block, ParameterReader& reader) {
  for (auto& conv : block->conv) {
    reader.ReadTapPanel32(conv.weight, N, N, K);
    reader.Read(conv.bias, sizeof conv.bias);
  }
}

template <int N>
void ReadResidualStack(ResidualStackWeights<N>* stack, ParameterReader& reader) {
  ReadResidualBlock(&stack->k3, reader);
  ReadResidualBlock(&stack->k7, reader);
  ReadResidualBlock(&stack->k11, reader);
}

}  // namespace

void StoreWaveformTables(WaveformGeneratorBlock* model) {
  // sin^2(pi k / 16) for k = 1..15; entry 0 stays at the zero of the fill.
  static const std::uint32_t kWindow[15] = {
      0x3D1BE50C, 0x3E15F61A, 0x3E9E0875, 0x3F000000, 0x3F30FBC5, 0x3F5A827A, 0x3F7641AF, 0x3F800000,
      0x3F7641AF, 0x3F5A827A, 0x3F30FBC5, 0x3F000000, 0x3E9E0875, 0x3E15F61A, 0x3D1BE50C};
  // Two thirds for the four samples of a hop; the second is one unit in the
  // last place larger, and the outputs are matched to exactly these values.
  static const std::uint32_t kOverlapScale[4] = {0x3F2AAAAB, 0x3F2AAAAC, 0x3F2AAAAB, 0x3F2AAAAB};
  StoreBits(model->window + 1, kWindow, 15);
  model->window_table = model->window;
  StoreBits(model->overlap_scale, kOverlapScale, 4);
  model->overlap_scale_table = model->overlap_scale;
}

void ReadWaveformGeneratorParameters(WaveformGeneratorBlock* model, const char* path) {
  ParameterReader reader(path);
  ReadDense256(&model->phone_projection, reader);
  reader.Read(model->pitch_embedding, sizeof model->pitch_embedding);
  reader.ReadPanel32(model->pitch_feature_projection, kChannels, 4);
  reader.Read(model->pitch_feature_bias, sizeof model->pitch_feature_bias);
  ReadCausalConv7(&model->pre_conv, reader);
  reader.Read(model->norm1_scale, sizeof model->norm1_scale);
  reader.Read(model->norm1_shift, sizeof model->norm1_shift);
  for (auto& block : model->blocks) ReadResidualConvBlock(&block, reader);
  reader.Read(model->norm2_scale, sizeof model->norm2_scale);
  reader.Read(model->norm2_shift, sizeof model->norm2_shift);
  ReadCausalConv7(&model->post_conv, reader);
  reader.ReadTapPanel32(model->upsample1, kStage1Channels, kChannels, 10);
  reader.Read(model->upsample1_bias, sizeof model->upsample1_bias);
  reader.ReadTapPanel32(model->upsample2, kStage2Channels, kStage1Channels, 6);
  reader.Read(model->upsample2_bias, sizeof model->upsample2_bias);
  ReadResidualStack(&model->stack1, reader);
  ReadResidualStack(&model->stack2, reader);
  // [out][in][tap] -> [tap][out][in]: a tap-major transpose over (out, in) pairs.
  reader.ReadTapMajor(&model->logmag_conv[0][0][0], kSpectrumValues * kStage2Channels, 7);
  reader.Read(model->logmag_bias, sizeof model->logmag_bias);
  reader.ReadPanel32(model->phase_input, 3 * kPhaseHidden, kStage2Channels);
  reader.Read(model->phase_input_bias, sizeof model->phase_input_bias);
  reader.ReadPanel32(model->phase_recurrent, 3 * kPhaseHidden, kPhaseHidden);
  reader.Read(model->phase_recurrent_bias, sizeof model->phase_recurrent_bias);
  // [band][tap] -> [tap][band].
  reader.ReadTapMajor(&model->band_filter[0][0], kBands, kMergeTaps);
  reader.Finish();
}

}  // namespace corvina
