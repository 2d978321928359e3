// The waveform generator's layers and stages, in three builds with identical
// results:
//   scalar::  the definition, plain loops in the order that fixes the result;
//   avx2::, avx512::  the same stages on the vector kernels.
// The stages built from kernels (residual stacks, upsampling, synthesis) are
// written once, in the *.inc bodies, and compiled in every namespace, so a
// whole scalar generator can be compared with the vector ones.
// Everything reads the model and writes only the context (or the stack).
#pragma once
#include <cstdint>

#include "waveform_layout.h"

namespace corvina {

constexpr int kFftLength = 16;
constexpr int kFftHop = 4;
constexpr int kLogMagnitudeTaps = 7;
constexpr int kMergePast = kMergeTaps - 1;  // 62 zero-stuffed positions kept
constexpr int kBandSamples = kStage2Steps * kFftHop;  // 60 per band and frame
constexpr float kBandGain = 4.0f;
constexpr float kPhaseOffset = 1e-6f;
constexpr float kOneThird = 0.33333334f;  // bits 0x3EAAAAAB

// The four references of one frame, in the order the entry point builds them.
enum WaveformInput { kSpeakerInput = 0, kPitchFeaturesInput = 1, kQuantizedPitchInput = 2, kPhoneInput = 3 };

#define CORVINA_DECLARE_WAVEFORM_KERNELS                                                                       \
  /* y = SiLU(x), n a multiple of 8. */                                                                       \
  void SiluCopy(const float* x, float* y, int n);                                                             \
  /* y = x + y. */                                                                                             \
  void AddInPlace(float* y, const float* x, int n);                                                           \
  /* out = ((out + a) + b) * 0.33333334. */                                                                    \
  void MeanOfThree(float* out, const float* a, const float* b, int n);                                        \
  /* Multi-receptive-field stacks; the result lives in the state until the next call. */                      \
  float* ResidualStack(const ResidualStackWeights<kStage1Channels>& weights, const float* x,                    \
                       ResidualStackState<kStage1Channels, kStage1Steps>* state);                             \
  float* ResidualStack(const ResidualStackWeights<kStage2Channels>& weights, const float* x,                    \
                       ResidualStackState<kStage2Channels, kStage2Steps>* state);                             \
  /* y = x + bias (y may be x). */                                                                             \
  void AddBias(float* y, const float* x, const f16* bias, int n);                                             \
  /* y = the n half floats of x, widened. */                                                                   \
  void WidenHalves(const f16* x, float* y, int n);                                                            \
  /* Streaming transposed convolutions: x[256] -> 5 x 128 (kernel 10, stride 5) and                          \
     5 x 128 -> 15 x 64 (kernel 6, stride 3). Taps past the frame wait in the carry ring. */                  \
  void UpsampleFirst(const f16* weight, const f16* bias, const float* x, float (*carry)[kStage1Channels],      \
                     std::int32_t* index, float* output);                                                     \
  void UpsampleSecond(const f16* weight, const f16* bias, const float* x, float (*carry)[kStage2Channels],     \
                      std::int32_t* index, float* output);                                                    \
  /* magnitudes[s][o] = exp(bias[o] + sum_k sum_i W[k][o][i] x[s - 6 + k][i]) over the 15 sub-steps;          \
     negative sub-steps from the ring, which then takes sub-steps 9..14. */                                    \
  void LogMagnitudes(const f16 (*weight)[kSpectrumValues][kStage2Channels], const f16* bias, const float* x,  \
                     float (*history)[kStage2Channels], std::int32_t* position,                               \
                     float (*magnitudes)[kSpectrumValues]);                                                   \
  /* Gate arithmetic of the phase unit: h from gi, gh (384 each) and the previous h (128). */                 \
  void PhaseGates(const float* gi, const float* gh, float* h);                                                \
  /* One hop of a band: shift buffer[16] by 4, add window * frame, out[0..3] = buffer * scale * gain. */      \
  void OverlapAdd(const float* frame, const float* window, const float* scale, float* buffer, float* out);    \
  /* output[t] = sum over taps k, bands b of filter[k][b] * stuffed_b[t - 62 + k]; keeps 62 positions. */    \
  void BandMerge(const f16 (*filter)[kBands], const float (*bands)[kBandSamples], float (*history)[kBands],  \
                 std::int32_t* position, float* output);                                                      \
  /* Bin k of sub-step s: state pair (2k, 2k + 1) * magnitude / (|pair| + 1e-6), into state->spectra. */     \
  void ComplexSpectra(SynthesisState* state);                                                                 \
  /* The phase unit over the 15 sub-steps, recording each state. */                                          \
  void PhaseRecurrentUnit(const WaveformGeneratorBlock& model, const float* x, SynthesisState* state);        \
  /* The magnitudes and phase states recorded for the frame -> 240 samples inside the state. */              \
  const float* SpectraToSamples(const WaveformGeneratorBlock& model, SynthesisState* state);                  \
  /* 15 x 64 activated features -> 240 samples inside the state. */                                           \
  const float* SpectralSynthesis(const WaveformGeneratorBlock& model, const float* x, SynthesisState* state); \
  /* Steps before upsampling: the combined, activated 256-value frame after the post-convolution. */          \
  float* FrameNetwork(const WaveformGeneratorBlock& model, const void* const* inputs, WaveformContext* context); \
  /* One whole frame; returns the 240 samples inside the context. */                                          \
  const float* GenerateWaveform(const WaveformGeneratorBlock& model, const void* const* inputs,                 \
                                WaveformContext* context);

// Batches, every set (waveform_network.inc): one frame of n streams (1 <= n <= kMaxBatch of
// engine/kernels.h), each context's inputs table filled as for
// GenerateWaveform. Runs layer by layer across the streams, so each layer's
// weights come from memory once per batch; every stream's results are those of
// its own GenerateWaveform, bit for bit. The samples are in each context's
// synthesis.output.
#define CORVINA_DECLARE_WAVEFORM_BATCH                                                                   \
  /* FrameNetwork for every stream; each result in its context's post_conv.output. */                   \
  void FrameNetworkN(const WaveformGeneratorBlock& model, int n, WaveformContext* const* contexts);       \
  /* PhaseRecurrentUnit for every stream, x[s] the features of stream s. */                              \
  void PhaseRecurrentUnitN(const WaveformGeneratorBlock& model, int n, const float* const* x,            \
                           SynthesisState* const* states);                                               \
  void GenerateWaveformN(const WaveformGeneratorBlock& model, int n, WaveformContext* const* contexts);

namespace scalar {
CORVINA_DECLARE_WAVEFORM_KERNELS
CORVINA_DECLARE_WAVEFORM_BATCH
}
namespace avx2 {  // engine/isa_avx2.cpp
CORVINA_DECLARE_WAVEFORM_KERNELS
CORVINA_DECLARE_WAVEFORM_BATCH
}
namespace avx512 {
CORVINA_DECLARE_WAVEFORM_KERNELS
CORVINA_DECLARE_WAVEFORM_BATCH
}
#undef CORVINA_DECLARE_WAVEFORM_KERNELS
#undef CORVINA_DECLARE_WAVEFORM_BATCH

}  // namespace corvina
