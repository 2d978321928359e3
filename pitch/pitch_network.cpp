// Picks the network build of the active kernel set. Plain x86-64: no vector
// code of its own.
#include "pitch_network.h"

#include "../engine/kernel_set.h"

namespace corvina {

void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context) {
  switch (ActiveKernelSet()) {
    case KernelSet::kAvx512: fast_avx512::PitchNetwork(model, context); break;
    case KernelSet::kAvx2: fast_avx2::PitchNetwork(model, context); break;
    default: avx2::PitchNetwork(model, context); break;
  }
}

}  // namespace corvina
