// The scalar set: every kernel definition (plain loops in the order of
// accumulation that fixes the result), the networks on them, and its table.
// The reference each vector set equals bit for bit: in the test-only
// library, never in the engine. A batch runs its streams in turn through the
// one-stream definitions.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

#include "../phone/phone_kernels.h"
#include "../pitch/pitch_layout.h"
#include "../pitch/pitch_network.h"
#include "../waveform/dilated_causal_conv.h"
#include "../waveform/waveform_kernels.h"
#include "activations_scalar.h"
#include "batch.h"
#include "fft.h"
#include "kernel_set.h"
#include "kernels.h"

namespace corvina {
namespace scalar {

// --- The shared layers ---

void PanelAccumulate(const f16* weight, const float* x, float* y, int outputs, int inputs) {
  for (int o = 0; o < outputs; ++o) {
    const f16* panel = weight + static_cast<std::size_t>(o / kPanel) * inputs * kPanel + o % kPanel;
    float sum = y[o];
    for (int i = 0; i < inputs; ++i) sum = std::fma(HalfToFloat(panel[i * kPanel]), x[i], sum);
    y[o] = sum;
  }
}

void PanelProduct(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs) {
  for (int o = 0; o < outputs; ++o) y[o] = HalfToFloat(bias[o]);
  PanelAccumulate(weight, x, y, outputs, inputs);
}

void GeluInPlace(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = Gelu(x[i]);
}

void GeluInPlacePrefetching(float* x, int n, const f16*, std::size_t) { GeluInPlace(x, n); }

void PanelProductGelu(const f16* weight, const f16* bias, const float* x, float* y, int outputs, int inputs,
                      const f16*, std::size_t) {
  PanelProduct(weight, bias, x, y, outputs, inputs);
  GeluInPlace(y, outputs);
}

void SiluInPlace(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = Silu(x[i]);
}

void Normalize(float* x, int n) {
  float r, s;
  NormalizationCoefficients(x, n, &r, &s);
  for (int i = 0; i < n; ++i) x[i] = std::fma(x[i], r, s);
}

void NormalizeScaleShift(float* x, const f16* scale, const f16* shift, int n) {
  Normalize(x, n);
  for (int i = 0; i < n; ++i) x[i] = std::fma(x[i], HalfToFloat(scale[i]), HalfToFloat(shift[i]));
}

float* DenseLayer(const Dense256Weights& weights, const float* x, DenseSlot* slot) {
  PanelProduct(weights.weight, weights.bias, x, slot->output, kChannels, kChannels);
  return slot->output;
}

float* CausalConv7Layer(const CausalConv7Weights& weights, const float* x, CausalConv7Slot* slot) {
  constexpr int kPast = kCausalConvTaps - 1;
  constexpr std::size_t kTapSize = kChannels * kChannels;
  const int p = slot->position;
  for (int o = 0; o < kChannels; ++o) slot->output[o] = HalfToFloat(weights.bias[o]);
  // Tap 0 meets the frame of six calls ago, tap 5 the previous one, tap 6 x.
  for (int t = 0; t < kPast; ++t)
    PanelAccumulate(weights.weight + t * kTapSize, slot->history[(p + t) % kPast], slot->output, kChannels, kChannels);
  PanelAccumulate(weights.weight + kPast * kTapSize, x, slot->output, kChannels, kChannels);
  std::memcpy(slot->history[p], x, sizeof slot->history[p]);
  slot->position = (p + 1) % kPast;
  return slot->output;
}

// Every shape of the residual block, a stream at a time: the depthwise
// convolution over the ring of the last T - 1 inputs (oldest at position) and
// x, per channel from the bias, taps oldest first; x then takes the oldest
// slot. Normalisation, expansion with GELU, projection, plus x.
template <int C, int H, int T>
void ResidualConvBlockN(const ResidualConvWeights<C, H, T>& weights, const float* const* xs,
                        ResidualConvSlot<C, H, T>* const* slots, int n) {
  constexpr int kPast = T - 1;
  for (int s = 0; s < n; ++s) {
    const float* x = xs[s];
    ResidualConvSlot<C, H, T>* slot = slots[s];
    const int p = slot->position;
    float* m = slot->mixed;
    for (int c = 0; c < C; ++c) {
      float sum = HalfToFloat(weights.depthwise_bias[c]);
      for (int t = 0; t < kPast; ++t)
        sum = std::fma(HalfToFloat(weights.depthwise[t * C + c]), slot->history[(p + t) % kPast][c], sum);
      m[c] = std::fma(HalfToFloat(weights.depthwise[kPast * C + c]), x[c], sum);
    }
    std::memcpy(slot->history[p], x, sizeof slot->history[p]);
    slot->position = (p + 1) % kPast;
    Normalize(m, C);
    PanelProduct(weights.expand, weights.expand_bias, m, slot->hidden, H, C);
    GeluInPlace(slot->hidden, H);
    PanelProduct(weights.project, weights.project_bias, slot->hidden, slot->output, C, H);
    for (int c = 0; c < C; ++c) slot->output[c] += x[c];
  }
}

// --- The phone extractor's own kernels ---
// Front-end convolutions: one output at a time, taps outer, input channels
// ascending, from zero (the convolutions have no bias); the last one, kernel 2
// and stride 2, is the network's PairConvLayerN on MatrixSweepN.
// Recurrent gates, per channel c, in single precision:
//   r = Sigmoid(gi_r + gh_r), z = Sigmoid(gi_z + gh_z)    (each sum rounded)
//   n = RecurrentTanh(fma(r, gh_n, gi_n))                 (r scales gh_n, bias included)
//   h = fma(z, h_prev, (1 - z) * n)                       (1 - z and the product rounded)

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

// --- The waveform generator's dilated causal convolution ---

template <int N, int T, int K, int D>
void DilatedCausalConv(const DilatedConvWeights<N, K>& weights, const float* input,
                       DilatedCausalConvState<N, T, kDilatedHistory<K, D>>* state) {
  constexpr int H = kDilatedHistory<K, D>;
  const int position = state->position;
  // Step j of the ring followed by the frame: oldest history step first.
  auto step = [&](int j) -> const float* {
    return j < H ? state->history[(position + j) % H] : input + (j - H) * N;
  };
  for (int t = 0; t < T; ++t)
    for (int o = 0; o < N; ++o) state->output[t][o] = HalfToFloat(weights.bias[o]);
  for (int k = 0; k < K; ++k) {
    const f16* tap = weights.weight + k * N * N;
    for (int t = 0; t < T; ++t) {
      const float* x = step(t + k * D);
      for (int o = 0; o < N; ++o) {
        const f16* w = tap + (o / kPanel) * N * kPanel + o % kPanel;
        float sum = state->output[t][o];
        for (int i = 0; i < N; ++i) sum = std::fma(HalfToFloat(w[i * kPanel]), x[i], sum);
        state->output[t][o] = sum;
      }
    }
  }
  RecordFrame(input, state);
}


// --- The waveform generator's element-wise and synthesis kernels ---
// The stages built from them are in residual_stack.inc,
// upsampling.inc and spectral_synthesis.inc.
//   log-magnitudes: bias, then taps ascending (oldest first), inputs ascending;
//   phase gates:    as the phone extractor's recurrent layers;
//   overlap-add:    buffer = fma(window, frame, shifted buffer), out = buffer * scale * gain;
//   band merge:     from zero, taps ascending, bands ascending inside each tap.

void SiluCopy(const float* x, float* y, int n) {
  for (int i = 0; i < n; ++i) y[i] = Silu(x[i]);
}

void AddInPlace(float* y, const float* x, int n) {
  for (int i = 0; i < n; ++i) y[i] = x[i] + y[i];
}

void MeanOfThree(float* out, const float* a, const float* b, int n) {
  for (int i = 0; i < n; ++i) out[i] = ((out[i] + a[i]) + b[i]) * kOneThird;
}

void AddBias(float* y, const float* x, const f16* bias, int n) {
  for (int i = 0; i < n; ++i) y[i] = x[i] + HalfToFloat(bias[i]);
}

void WidenHalves(const f16* x, float* y, int n) {
  for (int i = 0; i < n; ++i) y[i] = HalfToFloat(x[i]);
}

void LogMagnitudes(const f16 (*weight)[kSpectrumValues][kStage2Channels], const f16* bias, const float* x,
                   float (*history)[kStage2Channels], std::int32_t* position, float (*magnitudes)[kSpectrumValues]) {
  constexpr int kPast = kLogMagnitudeTaps - 1;
  const int p = *position;
  // Sub-step j - 6 of the frame: the ring holds sub-steps -6 .. -1.
  auto step = [&](int j) -> const float* {
    return j < kPast ? history[(p + j) % kPast] : x + (j - kPast) * kStage2Channels;
  };
  for (int s = 0; s < kStage2Steps; ++s) {
    for (int o = 0; o < kSpectrumValues; ++o) {
      float sum = HalfToFloat(bias[o]);
      for (int k = 0; k < kLogMagnitudeTaps; ++k) {
        const float* in = step(s + k);
        for (int i = 0; i < kStage2Channels; ++i) sum = std::fma(HalfToFloat(weight[k][o][i]), in[i], sum);
      }
      magnitudes[s][o] = ExpTable(sum);
    }
  }
  for (int j = 0; j < kPast; ++j)
    std::memcpy(history[(p + j) % kPast], x + (kStage2Steps - kPast + j) * kStage2Channels,
                sizeof(float) * kStage2Channels);
}

void PhaseGates(const float* gi, const float* gh, float* h) { GatedRecurrentUpdate(gi, gh, h, kPhaseHidden); }

void OverlapAdd(const float* frame, const float* window, const float* scale, float* buffer, float* out) {
  for (int i = 0; i < kFftLength - kFftHop; ++i) buffer[i] = buffer[i + kFftHop];
  for (int i = kFftLength - kFftHop; i < kFftLength; ++i) buffer[i] = 0.0f;
  for (int i = 0; i < kFftLength; ++i) buffer[i] = std::fma(window[i], frame[i], buffer[i]);
  for (int i = 0; i < kFftHop; ++i) out[i] = buffer[i] * scale[i] * kBandGain;
}

void BandMerge(const f16 (*filter)[kBands], const float (*bands)[kBandSamples], float (*history)[kBands],
               std::int32_t* position, float* output) {
  const int p = *position;
  // Position j of band b, counted from the oldest kept one: the ring, then the
  // frame's 240 positions with band sample n at 4 n and zeros between.
  auto stuffed = [&](int b, int j) -> float {
    if (j < kMergePast) return history[(p + j) % kMergePast][b];
    j -= kMergePast;
    return j % kBands == 0 ? bands[b][j / kBands] : 0.0f;
  };
  for (int t = 0; t < kOutHop; ++t) {
    float sum = 0.0f;
    for (int k = 0; k < kMergeTaps; ++k)
      for (int b = 0; b < kBands; ++b) sum = std::fma(HalfToFloat(filter[k][b]), stuffed(b, t + k), sum);
    output[t] = sum;
  }
  // The last 62 positions, oldest at the advanced index.
  float last[kMergePast][kBands];
  for (int j = 0; j < kMergePast; ++j)
    for (int b = 0; b < kBands; ++b) last[j][b] = stuffed(b, kOutHop + j);
  const int next = (p + kOutHop) % kMergePast;
  for (int j = 0; j < kMergePast; ++j) std::memcpy(history[(next + j) % kMergePast], last[j], sizeof last[j]);
  *position = next;
}

// --- Batches: the streams in turn ---

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
