// The waveform generator's element-wise and synthesis kernels, the
// definitions: plain loops in the order of accumulation that fixes the
// result. The stages built from them are in residual_stack.inc,
// upsampling.inc and spectral_synthesis.inc.
//   log-magnitudes: bias, then taps ascending (oldest first), inputs ascending;
//   phase gates:    as the phone extractor's recurrent layers;
//   overlap-add:    buffer = fma(window, frame, shifted buffer), out = buffer * scale * gain;
//   band merge:     from zero, taps ascending, bands ascending inside each tap.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "../engine/activations_scalar.h"
#include "../engine/fft.h"
#include "../engine/kernels.h"
#include "waveform_kernels.h"

namespace corvina {
namespace scalar {

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


}  // namespace scalar
}  // namespace corvina
