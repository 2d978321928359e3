// The pitch estimator's causal network: front-end features of one frame in,
// 384 bin scores out (context->scores). Advances every ring by one frame.
// Written once for a batch of n <= kMaxBatch streams, layer by layer across
// them, each stream's scores in its own context (pitch_network.inc), and
// compiled in every kernel set; a lone stream is a batch of one. All sets
// agree bit for bit.
#pragma once
#include "pitch_layout.h"

namespace corvina {

namespace scalar {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}
namespace avx2 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}
namespace avx512 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
void PitchNetworkN(const PitchEstimatorBlock& model, PitchContext* const* contexts, int n);
}

}  // namespace corvina
