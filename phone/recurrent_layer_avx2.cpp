// Gated recurrent layer with 256-bit vectors; the gate grouping is the
// definition's (recurrent_layer_scalar.cpp):
//   r = Sigmoid(gi_r + gh_r), z = Sigmoid(gi_z + gh_z)
//   n = RecurrentTanh(fma(r, gh_n, gi_n)), h = fma(z, h_prev, (1 - z) * n)
#include "../engine/kernels.h"
#include "../engine/vector_math_avx2.h"
#include "phone_kernels.h"

namespace corvina {
namespace avx2 {

void RecurrentGates(RecurrentRecord* record) {
  const float* gi = record->input_gates;
  const float* gh = record->state_gates;
  const __m256 one = _mm256_set1_ps(1.0f);
  for (int c = 0; c < kChannels; c += 8) {
    const __m256 r = Sigmoid8(_mm256_add_ps(_mm256_load_ps(gi + c), _mm256_load_ps(gh + c)));
    const __m256 z =
        Sigmoid8(_mm256_add_ps(_mm256_load_ps(gi + kChannels + c), _mm256_load_ps(gh + kChannels + c)));
    const __m256 n = RecurrentTanh8(
        _mm256_fmadd_ps(r, _mm256_load_ps(gh + 2 * kChannels + c), _mm256_load_ps(gi + 2 * kChannels + c)));
    const __m256 h = _mm256_fmadd_ps(z, _mm256_load_ps(record->state + c), _mm256_mul_ps(_mm256_sub_ps(one, z), n));
    _mm256_store_ps(record->state + c, h);
    _mm256_store_ps(record->output + c, h);
  }
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
