// Exported entry points of the waveform generator. Compiled without vector ISA
// flags: only the network and synthesis use AVX2.
#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "waveform_layout.h"
#include "waveform_parameters.h"

using namespace corvina;

static WaveformGeneratorBlock* Model(CorvinaWaveformGenerator* model) {
  return reinterpret_cast<WaveformGeneratorBlock*>(model);
}

extern "C" {

CorvinaWaveformGenerator* Corvina_CreateWaveformGenerator(void) {
  WaveformGeneratorBlock* model = NewZeroedBlock<WaveformGeneratorBlock>();
  StoreWaveformTables(model);
  return reinterpret_cast<CorvinaWaveformGenerator*>(model);
}

void Corvina_DestroyWaveformGenerator(CorvinaWaveformGenerator* model) { DeleteBlock(Model(model)); }

CorvinaWaveformContext1* Corvina_CreateWaveformContext1(void) {
  return reinterpret_cast<CorvinaWaveformContext1*>(NewZeroedBlock<WaveformContext>());
}

void Corvina_DestroyWaveformContext1(CorvinaWaveformContext1* context) {
  DeleteBlock(reinterpret_cast<WaveformContext*>(context));
}

int Corvina_ReadWaveformGeneratorParameters(CorvinaWaveformGenerator* model, const char* path) {
  ReadWaveformGeneratorParameters(Model(model), path);
  return 0;
}

}  // extern "C"
