// The phone extractor's own layers, in three builds with identical results:
//   scalar::  the definition, plain loops in the order that fixes the result;
//   avx2::, avx512::  the engine's sweeps, every position of every stream in one pass per panel
//                     (front_end_vector.inc).
// Front-end convolutions carry no bias: each output starts from zero and
// accumulates over taps (outer) and input channels (ascending) with fused
// multiply-adds. Each layer updates its own history and ends with the GELU.
#pragma once
#include "../engine/half.h"
#include "phone_layout.h"

namespace corvina {

constexpr int kPhoneHop = CORVINA_IN_HOP_LENGTH;  // samples per frame
constexpr int kKeptSamples = 5;                   // conv 1 reads 5 samples back
constexpr int kInputConvTaps = 10;
constexpr int kInputConvStride = 5;
constexpr int kInputConvPositions = kPhoneHop / kInputConvStride;  // 32
constexpr int kInputConvChannels = 32;

#define CORVINA_DECLARE_PHONE_KERNELS                                                                     \
  /* Convolution 1 (1 -> 32, kernel 10, stride 5) over the frame x[160]: position p reads x[5p - 5 + t], \
     negative indices from `kept` (the previous frame's last 5 samples), which then takes x[155..159]. */  \
  void InputConvLayer(const f16* weight, const float* x, float* kept, float* output);                    \
  /* Kernel 3, stride 2: output j reads input positions 2j - 1, 2j, 2j + 1; position -1 is `previous`,    \
     which then takes the frame's last input position. Channels multiples of 32, positions even. */       \
  void StridedConvLayer(const f16* weight, const float* input, float* previous, float* output, int inputs, \
                        int outputs, int out_positions);                                                 \
  /* Convolution 6 (256 -> 256, kernel 2, stride 2): one output position from input positions 0 and 1. */ \
  void PairConvLayer(const f16* weight, const float* input, float* output);                              \
  /* One gated recurrent layer on input v[256]: gates, new state to record->state and record->output. */ \
  void RecurrentLayer(const PhoneExtractorBlock::RecurrentLayer& weights, const float* v, RecurrentRecord* record); \
  /* The gate arithmetic alone, from the record's gi, gh and state. */                                  \
  void RecurrentGates(RecurrentRecord* record);                                                          \
  /* One frame through the whole network; returns the 256 features inside the context. */               \
  const float* ExtractPhone(const PhoneExtractorBlock& model, const float* x, PhoneContext* context);

// One frame of n <= kMaxBatch streams, layer by layer across them; stream s's
// features end in contexts[s]->output_dense.output, as ExtractPhone's would.
#define CORVINA_DECLARE_PHONE_BATCH                                                                      \
  /* StridedConvLayer for n streams, each with its own input, previous position and output. */           \
  void StridedConvLayerN(const f16* weight, const float* const* input, float* const* previous,             \
                         float* const* output, int n, int inputs, int outputs, int out_positions);         \
  void ExtractPhoneN(const PhoneExtractorBlock& model, const float* const* x, PhoneContext* const* contexts, int n);

namespace scalar {
CORVINA_DECLARE_PHONE_KERNELS
CORVINA_DECLARE_PHONE_BATCH
}
namespace avx2 {
CORVINA_DECLARE_PHONE_KERNELS
CORVINA_DECLARE_PHONE_BATCH
}
namespace avx512 {
CORVINA_DECLARE_PHONE_KERNELS
CORVINA_DECLARE_PHONE_BATCH
}
#undef CORVINA_DECLARE_PHONE_BATCH
#undef CORVINA_DECLARE_PHONE_KERNELS

}  // namespace corvina
