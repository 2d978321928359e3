// The pitch estimator's parameter file, tensor by tensor in file order.
#include "pitch_parameters.h"

#include "../engine/parameter_reader.h"

namespace corvina {

namespace {

// A 192 x 192 matrix followed by its bias, re-tiled before the bias is read.
void ReadDense192(Dense192Weights* layer, ParameterReader& reader) {
  reader.ReadPanel32(layer->weight, kPitchWidth, kPitchWidth);
  reader.Read(layer->bias, sizeof layer->bias);
}

}  // namespace

void ReadPitchEstimatorParameters(PitchEstimatorBlock* model, const char* path) {
  ParameterReader reader(path);
  ReadDense192(&model->spectral_in, reader);
  ReadDense192(&model->spectral_hidden, reader);
  reader.ReadPanel32(model->lag_in, kPitchWidth, kLags);
  reader.Read(model->lag_in_bias, sizeof model->lag_in_bias);
  ReadDense192(&model->lag_hidden, reader);
  reader.ReadTapPanel32(model->temporal_conv, kPitchWidth, kPitchWidth, 3);
  reader.Read(model->temporal_conv_bias, sizeof model->temporal_conv_bias);
  reader.Read(model->input_norm_scale, sizeof model->input_norm_scale);
  reader.Read(model->input_norm_shift, sizeof model->input_norm_shift);
  for (auto& block : model->blocks) ReadResidualConvBlock(&block, reader);
  reader.Read(model->output_norm_scale, sizeof model->output_norm_scale);
  reader.Read(model->output_norm_shift, sizeof model->output_norm_shift);
  reader.ReadPanel32(model->head, kPitchBins, kPitchWidth);
  reader.Read(model->head_bias, sizeof model->head_bias);
  reader.Finish();
}

}  // namespace corvina
