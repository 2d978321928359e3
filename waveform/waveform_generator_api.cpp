// Exported entry points of the waveform generator. Compiled without vector ISA
// flags: only the network and synthesis builds use vector instructions; the
// kernel set picks one.
#include <cstring>

#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "waveform_kernels.h"
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

// The inputs are copied into the context's aligned frame record first, so the
// caller's arrays may overlap the output or be reused once the call returns.
void Corvina_GenerateWaveform1(const CorvinaWaveformGenerator* model, const float* phone,
                               const int32_t* quantized_pitch, const float* pitch_features,
                               const float* speaker_embedding, float* output, CorvinaWaveformContext1* context) {
  WaveformContext* state = reinterpret_cast<WaveformContext*>(context);
  WaveformFrameRecord& frame = state->frame;
  std::memcpy(frame.phone, phone, sizeof frame.phone);
  frame.quantized_pitch = *quantized_pitch;
  std::memcpy(frame.pitch_features, pitch_features, sizeof frame.pitch_features);
  std::memcpy(frame.speaker_embedding, speaker_embedding, sizeof frame.speaker_embedding);
  state->inputs[kSpeakerInput] = frame.speaker_embedding;
  state->inputs[kPitchFeaturesInput] = frame.pitch_features;
  state->inputs[kQuantizedPitchInput] = &frame.quantized_pitch;
  state->inputs[kPhoneInput] = frame.phone;
  const auto& block = *reinterpret_cast<const WaveformGeneratorBlock*>(model);
  const float* samples;
  switch (ActiveKernelSet()) {
    case KernelSet::kAvx512: samples = fast_avx512::GenerateWaveform(block, state->inputs, state); break;
    case KernelSet::kAvx2: samples = fast_avx2::GenerateWaveform(block, state->inputs, state); break;
    default: samples = avx2::GenerateWaveform(block, state->inputs, state); break;
  }
  std::memcpy(output, samples, sizeof(float) * kOutHop);
}

}  // extern "C"
