// Gated recurrent layer with 256-bit vectors; the gate grouping is the
// definition's (recurrent_layer_scalar.cpp):
//   r = Sigmoid(gi_r + gh_r), z = Sigmoid(gi_z + gh_z)
//   n = RecurrentTanh(fma(r, gh_n, gi_n)), h = fma(z, h_prev, (1 - z) * n)
#include <cstring>

#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"

namespace corvina {
namespace avx2 {

void RecurrentGates(RecurrentRecord* record) {
  GatedRecurrentUpdate8(record->input_gates, record->state_gates, record->state, kChannels);
  std::memcpy(record->output, record->state, sizeof record->output);
}

void RecurrentLayer(const PhoneExtractorBlock::RecurrentLayer& weights, const float* v, RecurrentRecord* record) {
  // The state-side product reads the previous frame's state before the gates replace it.
  PanelProduct(weights.input_side.weight, weights.input_side.bias, v, record->input_gates, 3 * kChannels, kChannels);
  PanelProduct(weights.state_side.weight, weights.state_side.bias, record->state, record->state_gates,
               3 * kChannels, kChannels);
  RecurrentGates(record);
}

}  // namespace avx2
}  // namespace corvina
