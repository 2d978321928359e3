// Exported entry points of the pitch estimator. Compiled without vector ISA
// flags: the network runs from the active kernel table (engine/kernel_set.h).
#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "../engine/kernels.h"
#include "pitch_decoder.h"
#include "pitch_layout.h"
#include "pitch_parameters.h"
#include "spectral_front_end.h"

using namespace corvina;

static PitchEstimatorBlock* Model(CorvinaPitchEstimator* model) {
  return reinterpret_cast<PitchEstimatorBlock*>(model);
}

// The bin and the four features from the scores of the frame, kept in the
// context and copied out.
static void DecodeInto(PitchContext* state, int32_t* quantized_pitch, float* pitch_features) {
  const PitchDecision decision = DecodePitch(state->scores);
  state->quantized_pitch = decision.bin;
  state->pitch_features[0] = state->front.loudness;
  state->pitch_features[1] = decision.p0;
  state->pitch_features[2] = decision.lower_ratio;
  state->pitch_features[3] = decision.upper_ratio;
  *quantized_pitch = state->quantized_pitch;
  for (int i = 0; i < CORVINA_PITCH_FEATURES; ++i) pitch_features[i] = state->pitch_features[i];
}

extern "C" {

CorvinaPitchEstimator* Corvina_CreatePitchEstimator(void) {
  RequireSupportedProcessor();
  return reinterpret_cast<CorvinaPitchEstimator*>(NewZeroedBlock<PitchEstimatorBlock>());
}

void Corvina_DestroyPitchEstimator(CorvinaPitchEstimator* model) { DeleteBlock(Model(model)); }

CorvinaPitchContext1* Corvina_CreatePitchContext1(void) {
  return reinterpret_cast<CorvinaPitchContext1*>(NewZeroedBlock<PitchContext>());
}

void Corvina_DestroyPitchContext1(CorvinaPitchContext1* context) {
  DeleteBlock(reinterpret_cast<PitchContext*>(context));
}

int Corvina_ReadPitchEstimatorParameters(CorvinaPitchEstimator* model, const char* path) {
  ReadPitchEstimatorParameters(Model(model), path);
  return 0;
}

void Corvina_EstimatePitch1(const CorvinaPitchEstimator* model, const float* input, int32_t* quantized_pitch,
                            float* pitch_features, CorvinaPitchContext1* context) {
  auto* stream = reinterpret_cast<PitchContext*>(context);
  PitchFrontEndState* front = &stream->front;
  SpectralFrontEndN(&input, &front, 1);
  ActiveKernels().pitch_network(*reinterpret_cast<const PitchEstimatorBlock*>(model), &stream, 1);
  DecodeInto(stream, quantized_pitch, pitch_features);
}

// Groups of up to kMaxBatch streams through the front end and the active
// set's network; the decoder runs per stream.
void Corvina_EstimatePitchN(const CorvinaPitchEstimator* model, int32_t n, const float* const* inputs,
                            int32_t* const* quantized_pitch, float* const* pitch_features,
                            CorvinaPitchContext1* const* contexts) {
  const auto& block = *reinterpret_cast<const PitchEstimatorBlock*>(model);
  const KernelTable& kernels = ActiveKernels();
  for (int32_t first = 0; first < n; first += kMaxBatch) {
    const int count = n - first < kMaxBatch ? static_cast<int>(n - first) : kMaxBatch;
    PitchContext* const* group = reinterpret_cast<PitchContext* const*>(contexts + first);
    PitchFrontEndState* fronts[kMaxBatch];
    for (int s = 0; s < count; ++s) fronts[s] = &group[s]->front;
    SpectralFrontEndN(inputs + first, fronts, count);
    kernels.pitch_network(block, group, count);
    for (int s = 0; s < count; ++s) DecodeInto(group[s], quantized_pitch[first + s], pitch_features[first + s]);
  }
}

}  // extern "C"
