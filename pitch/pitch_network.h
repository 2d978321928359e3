// The pitch estimator's causal network: front-end features of one frame in,
// 384 bin scores out (context->scores). Advances every ring by one frame.
// Built once per kernel build (pitch_network.inc); all builds agree bit for bit.
#pragma once
#include "pitch_layout.h"

namespace corvina {

// The build the active kernel set names (engine/kernel_set.h).
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);

namespace scalar {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
}
namespace avx2 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
}
// The fast builds also run a batch: n <= kMaxBatch streams, layer by layer
// across them, each stream's scores in its own context (pitch_batch.inc).
namespace fast_avx2 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}
namespace fast_avx512 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}

}  // namespace corvina
