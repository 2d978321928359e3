// Gated recurrent layer, the definition. Per channel c, in single precision:
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

void RecurrentGates(RecurrentRecord* record) {
  GatedRecurrentUpdate(record->input_gates, record->state_gates, record->state, kChannels);
  std::memcpy(record->output, record->state, sizeof record->output);
}

void RecurrentLayer(const PhoneExtractorBlock::RecurrentLayer& weights, const float* v, RecurrentRecord* record) {
  PanelProduct(weights.input_side.weight, weights.input_side.bias, v, record->input_gates, 3 * kChannels, kChannels);
  PanelProduct(weights.state_side.weight, weights.state_side.bias, record->state, record->state_gates,
               3 * kChannels, kChannels);
  RecurrentGates(record);
}

}  // namespace scalar
}  // namespace corvina
