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
  const float* gi = record->input_gates;
  const float* gh = record->state_gates;
  for (int c = 0; c < kChannels; ++c) {
    const float r = Sigmoid(gi[c] + gh[c]);
    const float z = Sigmoid(gi[kChannels + c] + gh[kChannels + c]);
    const float n = RecurrentTanh(std::fma(r, gh[2 * kChannels + c], gi[2 * kChannels + c]));
    const float h = std::fma(z, record->state[c], (1.0f - z) * n);
    record->state[c] = h;
    record->output[c] = h;
  }
}

void RecurrentLayer(const PhoneExtractorBlock::RecurrentLayer& weights, const float* v, RecurrentRecord* record) {
  PanelProduct(weights.input_side.weight, weights.input_side.bias, v, record->input_gates, 3 * kChannels, kChannels);
  PanelProduct(weights.state_side.weight, weights.state_side.bias, record->state, record->state_gates,
               3 * kChannels, kChannels);
  RecurrentGates(record);
}

}  // namespace scalar
}  // namespace corvina
