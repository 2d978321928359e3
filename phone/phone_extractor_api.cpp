// Exported entry points of the phone extractor. Compiled without vector ISA
// flags: the network runs from the active kernel table (engine/kernel_set.h).
#include <cstring>

#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "../engine/kernels.h"
#include "phone_layout.h"
#include "phone_parameters.h"

using namespace corvina;

static PhoneExtractorBlock* Model(CorvinaPhoneExtractor* model) {
  return reinterpret_cast<PhoneExtractorBlock*>(model);
}

extern "C" {

CorvinaPhoneExtractor* Corvina_CreatePhoneExtractor(void) {
  RequireSupportedProcessor();
  return reinterpret_cast<CorvinaPhoneExtractor*>(NewZeroedBlock<PhoneExtractorBlock>());
}

void Corvina_DestroyPhoneExtractor(CorvinaPhoneExtractor* model) { DeleteBlock(Model(model)); }

CorvinaPhoneContext1* Corvina_CreatePhoneContext1(void) {
  return reinterpret_cast<CorvinaPhoneContext1*>(NewZeroedBlock<PhoneContext>());
}

void Corvina_DestroyPhoneContext1(CorvinaPhoneContext1* context) {
  DeleteBlock(reinterpret_cast<PhoneContext*>(context));
}

int Corvina_ReadPhoneExtractorParameters(CorvinaPhoneExtractor* model, const char* path) {
  ReadPhoneExtractorParameters(Model(model), path);
  return 0;
}

void Corvina_ExtractPhone1(const CorvinaPhoneExtractor* model, const float* input, float* output,
                           CorvinaPhoneContext1* context) {
  auto* stream = reinterpret_cast<PhoneContext*>(context);
  ActiveKernels().extract_phone(*reinterpret_cast<const PhoneExtractorBlock*>(model), &input, &stream, 1);
  std::memcpy(output, stream->output_dense.output, kChannels * sizeof(float));
}

// Groups of up to kMaxBatch streams through the active set's network.
void Corvina_ExtractPhoneN(const CorvinaPhoneExtractor* model, int32_t n, const float* const* inputs,
                           float* const* outputs, CorvinaPhoneContext1* const* contexts) {
  const auto& block = *reinterpret_cast<const PhoneExtractorBlock*>(model);
  const KernelTable& kernels = ActiveKernels();
  for (int32_t first = 0; first < n; first += kMaxBatch) {
    const int count = n - first < kMaxBatch ? static_cast<int>(n - first) : kMaxBatch;
    PhoneContext* const* group = reinterpret_cast<PhoneContext* const*>(contexts + first);
    kernels.extract_phone(block, inputs + first, group, count);
    for (int s = 0; s < count; ++s)
      std::memcpy(outputs[first + s], group[s]->output_dense.output, kChannels * sizeof(float));
  }
}

}  // extern "C"
