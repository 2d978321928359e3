// The phone extractor's own kernels, the definitions.
// Front-end convolutions: one output at a time, taps outer, input channels
// ascending, from zero (the convolutions have no bias); the last one, kernel 2
// and stride 2, is the network's PairConvLayerN on MatrixSweepN.
// Recurrent gates, per channel c, in single precision:
//   r = Sigmoid(gi_r + gh_r), z = Sigmoid(gi_z + gh_z)    (each sum rounded)
//   n = RecurrentTanh(fma(r, gh_n, gi_n))                 (r scales gh_n, bias included)
//   h = fma(z, h_prev, (1 - z) * n)                       (1 - z and the product rounded)
#include <cmath>
#include <cstring>

#include "../engine/activations_scalar.h"
#include "../engine/kernels.h"
#include "phone_kernels.h"

namespace corvina {
namespace scalar {

void InputConvLayer(const f16* weight, const float* x, float* kept, float* output) {
  for (int p = 0; p < kInputConvPositions; ++p) {
    for (int c = 0; c < kInputConvChannels; ++c) {
      float sum = 0.0f;
      for (int t = 0; t < kInputConvTaps; ++t) {
        const int k = kInputConvStride * p - kKeptSamples + t;
        const float sample = k < 0 ? kept[k + kKeptSamples] : x[k];
        sum = std::fma(HalfToFloat(weight[t * kInputConvChannels + c]), sample, sum);
      }
      output[p * kInputConvChannels + c] = sum;
    }
  }
  std::memcpy(kept, x + kPhoneHop - kKeptSamples, kKeptSamples * sizeof(float));
  GeluInPlace(output, kInputConvPositions * kInputConvChannels);
}

namespace {

// Output position of a bias-free convolution: y[o] = sum_t W_t[o] . rows[t].
void ConvPosition(const f16* weight, const float* const* rows, int taps, float* y, int inputs, int outputs) {
  const std::size_t tap_size = static_cast<std::size_t>(inputs) * outputs;
  for (int o = 0; o < outputs; ++o) y[o] = 0.0f;
  for (int t = 0; t < taps; ++t) PanelAccumulate(weight + t * tap_size, rows[t], y, outputs, inputs);
}

}  // namespace

void StridedConvLayer(const f16* weight, const float* input, float* previous, float* output, int inputs,
                      int outputs, int out_positions) {
  for (int j = 0; j < out_positions; ++j) {
    const float* rows[3];
    for (int t = 0; t < 3; ++t) {
      const int position = 2 * j - 1 + t;
      rows[t] = position < 0 ? previous : input + static_cast<std::size_t>(position) * inputs;
    }
    ConvPosition(weight, rows, 3, output + static_cast<std::size_t>(j) * outputs, inputs, outputs);
  }
  std::memcpy(previous, input + static_cast<std::size_t>(2 * out_positions - 1) * inputs, inputs * sizeof(float));
  GeluInPlace(output, out_positions * outputs);
}

void RecurrentGates(RecurrentRecord* record) {
  GatedRecurrentUpdate(record->input_gates, record->state_gates, record->state, kChannels);
  std::memcpy(record->output, record->state, sizeof record->output);
}

}  // namespace scalar
}  // namespace corvina
