// The phone extractor's parameter file, tensor by tensor in file order.
#include "phone_parameters.h"

#include "../engine/parameter_reader.h"

namespace corvina {

void ReadPhoneExtractorParameters(PhoneExtractorBlock* model, const char* path) {
  ParameterReader reader(path);
  reader.ReadTapMajor(model->conv1, 32, 10);
  reader.ReadTapPanel32(model->conv2, 64, 32, 3);
  reader.ReadTapPanel32(model->conv3, 128, 64, 3);
  reader.ReadTapPanel32(model->conv4, 256, 128, 3);
  reader.ReadTapPanel32(model->conv5, 256, 256, 3);
  reader.ReadTapPanel32(model->conv6, 256, 256, 2);
  ReadDense256(&model->input_dense, reader);
  for (auto& layer : model->recurrent) {
    ReadDense768(&layer.input_side, reader);
    ReadDense768(&layer.state_side, reader);
  }
  ReadCausalConv7(&model->causal_conv, reader);
  reader.Read(model->causal_norm_scale, sizeof model->causal_norm_scale);
  reader.Read(model->causal_norm_shift, sizeof model->causal_norm_shift);
  for (auto& block : model->blocks) ReadResidualConvBlock(&block, reader);
  reader.Read(model->final_norm_scale, sizeof model->final_norm_scale);
  reader.Read(model->final_norm_shift, sizeof model->final_norm_shift);
  ReadDense256(&model->output_dense, reader);
  reader.Finish();
}

}  // namespace corvina
