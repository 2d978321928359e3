// The pitch estimator's causal network: front-end features of one frame in,
// 384 bin scores out (context->scores). Advances every ring by one frame.
// scalar:: is the definition (pitch_network.inc); the vector builds run the
// same sequence for a batch of n <= kMaxBatch streams, layer by layer across
// them, each stream's scores in its own context (pitch_batch.inc). All builds
// agree bit for bit.
#pragma once
#include "pitch_layout.h"

namespace corvina {

namespace scalar {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
}
namespace fast_avx2 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}
namespace fast_avx512 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}

}  // namespace corvina
