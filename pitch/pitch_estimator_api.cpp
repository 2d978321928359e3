// Exported entry points of the pitch estimator. Compiled without vector ISA
// flags: only the network's kernels use AVX2.
#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "pitch_decoder.h"
#include "pitch_layout.h"
#include "pitch_network.h"
#include "pitch_parameters.h"
#include "spectral_front_end.h"

using namespace corvina;

static PitchEstimatorBlock* Model(CorvinaPitchEstimator* model) {
  return reinterpret_cast<PitchEstimatorBlock*>(model);
}

extern "C" {

CorvinaPitchEstimator* Corvina_CreatePitchEstimator(void) {
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
  auto* state = reinterpret_cast<PitchContext*>(context);
  SpectralFrontEnd(input, &state->front);
  PitchNetwork(*reinterpret_cast<const PitchEstimatorBlock*>(model), state);
  const PitchDecision decision = DecodePitch(state->scores);
  state->quantized_pitch = decision.bin;
  state->pitch_features[0] = state->front.loudness;
  state->pitch_features[1] = decision.p0;
  state->pitch_features[2] = decision.lower_ratio;
  state->pitch_features[3] = decision.upper_ratio;
  *quantized_pitch = state->quantized_pitch;
  for (int i = 0; i < CORVINA_PITCH_FEATURES; ++i) pitch_features[i] = state->pitch_features[i];
}

}  // extern "C"
