// Exported entry points of the phone extractor. Compiled without vector ISA
// flags: only the networks themselves (phone_network_avx2.cpp,
// phone_fast_*.cpp) use vector instructions; the kernel set picks one.
#include <cstring>

#include "../engine/aligned_block.h"
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "../engine/kernels.h"
#include "phone_kernels.h"
#include "phone_layout.h"
#include "phone_parameters.h"

using namespace corvina;

static PhoneExtractorBlock* Model(CorvinaPhoneExtractor* model) {
  return reinterpret_cast<PhoneExtractorBlock*>(model);
}

extern "C" {

CorvinaPhoneExtractor* Corvina_CreatePhoneExtractor(void) {
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
  const auto& block = *reinterpret_cast<const PhoneExtractorBlock*>(model);
  auto* state = reinterpret_cast<PhoneContext*>(context);
  const float* features;
  switch (ActiveKernelSet()) {
    case KernelSet::kAvx512: features = fast_avx512::ExtractPhone(block, input, state); break;
    case KernelSet::kAvx2: features = fast_avx2::ExtractPhone(block, input, state); break;
    default: features = avx2::ExtractPhone(block, input, state); break;
  }
  std::memcpy(output, features, kChannels * sizeof(float));
}

// Groups of up to kMaxBatch streams through the batched network of the fast
// sets; the basic set is the straightforward build and runs stream by stream.
void Corvina_ExtractPhoneN(const CorvinaPhoneExtractor* model, int32_t n, const float* const* inputs,
                           float* const* outputs, CorvinaPhoneContext1* const* contexts) {
  const KernelSet set = ActiveKernelSet();
  if (set == KernelSet::kBasic) {
    for (int32_t i = 0; i < n; ++i) Corvina_ExtractPhone1(model, inputs[i], outputs[i], contexts[i]);
    return;
  }
  const auto& block = *reinterpret_cast<const PhoneExtractorBlock*>(model);
  for (int32_t first = 0; first < n; first += kMaxBatch) {
    const int count = n - first < kMaxBatch ? static_cast<int>(n - first) : kMaxBatch;
    PhoneContext* const* group = reinterpret_cast<PhoneContext* const*>(contexts + first);
    if (set == KernelSet::kAvx512) {
      fast_avx512::ExtractPhoneN(block, inputs + first, group, count);
    } else {
      fast_avx2::ExtractPhoneN(block, inputs + first, group, count);
    }
    for (int s = 0; s < count; ++s)
      std::memcpy(outputs[first + s], group[s]->output_dense.output, kChannels * sizeof(float));
  }
}

}  // extern "C"
