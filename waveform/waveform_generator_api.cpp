// Exported entry points of the waveform generator. Compiled without vector ISA
// flags: the network runs from the active kernel table (engine/kernel_set.h).
#include <cstring>

#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "../engine/kernels.h"
#include "waveform_kernels.h"
#include "waveform_layout.h"
#include "waveform_parameters.h"

using namespace corvina;

static WaveformGeneratorBlock* Model(CorvinaWaveformGenerator* model) {
  return reinterpret_cast<WaveformGeneratorBlock*>(model);
}

// Copies one frame's inputs into the context's frame record and points the
// inputs table at them, in the order GenerateWaveform reads it.
static WaveformContext* StoreFrame(CorvinaWaveformContext1* context, const float* phone,
                                   const int32_t* quantized_pitch, const float* pitch_features,
                                   const float* speaker_embedding) {
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
  return state;
}

extern "C" {

CorvinaWaveformGenerator* Corvina_CreateWaveformGenerator(void) {
  RequireSupportedProcessor();
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
  WaveformContext* stream = StoreFrame(context, phone, quantized_pitch, pitch_features, speaker_embedding);
  ActiveKernels().generate_waveform(*reinterpret_cast<const WaveformGeneratorBlock*>(model), 1, &stream);
  std::memcpy(output, stream->synthesis.output, sizeof(float) * kOutHop);
}

// Every stream's inputs are copied before any output is written, so any
// output may overlap any input. Groups of up to kMaxBatch streams run
// through the active set's network.
void Corvina_GenerateWaveformN(const CorvinaWaveformGenerator* model, int32_t n, const float* const* phone,
                               const int32_t* const* quantized_pitch, const float* const* pitch_features,
                               const float* const* speaker_embedding, float* const* output,
                               CorvinaWaveformContext1* const* contexts) {
  for (int32_t i = 0; i < n; ++i)
    StoreFrame(contexts[i], phone[i], quantized_pitch[i], pitch_features[i], speaker_embedding[i]);
  const auto& block = *reinterpret_cast<const WaveformGeneratorBlock*>(model);
  const KernelTable& kernels = ActiveKernels();
  for (int32_t first = 0; first < n; first += kMaxBatch) {
    const int count = n - first < kMaxBatch ? static_cast<int>(n - first) : kMaxBatch;
    WaveformContext* const* batch = reinterpret_cast<WaveformContext* const*>(contexts + first);
    kernels.generate_waveform(block, count, batch);
    for (int i = 0; i < count; ++i)
      std::memcpy(output[first + i], batch[i]->synthesis.output, sizeof(float) * kOutHop);
  }
}

}  // extern "C"
