// The scalar set: the networks and stages on the scalar definitions, and its
// table. In the test-only library, as the reference every set is compared
// with; the definitions themselves are in kernels_scalar.cpp. A batch
// runs its streams in turn through the one-stream definitions.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "../phone/phone_kernels.h"
#include "../pitch/pitch_network.h"
#include "../waveform/dilated_causal_conv.h"
#include "../waveform/waveform_kernels.h"
#include "batch.h"
#include "fft.h"
#include "kernel_set.h"
#include "kernels.h"

namespace corvina {
namespace scalar {

void PanelAccumulateN(const f16* weight, const float* const* x, float* const* y, int n, int outputs, int inputs) {
  for (int s = 0; s < n; ++s) PanelAccumulate(weight, x[s], y[s], outputs, inputs);
}

void PanelProductN(const f16* weight, const f16* bias, const float* const* x, float* const* y, int n, int outputs,
                   int inputs) {
  for (int s = 0; s < n; ++s) PanelProduct(weight, bias, x[s], y[s], outputs, inputs);
}

void PanelProductGeluN(const f16* weight, const f16* bias, const float* const* x, float* const* y, int n,
                       int outputs, int inputs, const f16* next, std::size_t next_halves) {
  for (int s = 0; s < n; ++s) PanelProductGelu(weight, bias, x[s], y[s], outputs, inputs, next, next_halves);
}

void MatrixSweepN(const f16* weight, std::size_t tap_stride, const float* const* rows, int taps, int inputs,
                  float* const* y, int n, int outputs) {
  for (int s = 0; s < n; ++s)
    for (int t = 0; t < taps; ++t) PanelAccumulate(weight + t * tap_stride, rows[t * n + s], y[s], outputs, inputs);
}

void StridedConvLayerN(const f16* weight, const float* const* input, float* const* previous, float* const* output,
                       int n, int inputs, int outputs, int out_positions) {
  for (int s = 0; s < n; ++s)
    StridedConvLayer(weight, input[s], previous[s], output[s], inputs, outputs, out_positions);
}

void DenseLayerN(const Dense256Weights& weights, const float* const* x, DenseSlot* const* slots, int n) {
  for (int s = 0; s < n; ++s) DenseLayer(weights, x[s], slots[s]);
}

void CausalConv7LayerN(const CausalConv7Weights& weights, const float* const* x, CausalConv7Slot* const* slots,
                       int n) {
  for (int s = 0; s < n; ++s) CausalConv7Layer(weights, x[s], slots[s]);
}

template <int N, int T, int K, int D>
void DilatedCausalConvN(const DilatedConvWeights<N, K>& weights, int n, const float* const* input,
                        DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* const* states) {
  for (int s = 0; s < n; ++s) DilatedCausalConv<N, T, K, D>(weights, input[s], states[s]);
}

#include "../phone/phone_network.inc"
#include "../pitch/pitch_network.inc"
#include "../waveform/residual_stack.inc"
#include "../waveform/upsampling.inc"
#include "../waveform/spectral_synthesis.inc"
#include "../waveform/waveform_network.inc"

}  // namespace scalar

extern const KernelTable kScalarKernels = {"scalar", scalar::ExtractPhoneN, scalar::PitchNetworkN,
                                           scalar::GenerateWaveformN};

}  // namespace corvina
