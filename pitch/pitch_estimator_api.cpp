// Exported entry points of the pitch estimator. Compiled without vector ISA
// flags: only the front end and network use AVX2.
#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "pitch_layout.h"
#include "pitch_parameters.h"

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

}  // extern "C"
