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
namespace fast_avx2 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
}
namespace fast_avx512 {
void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);
}

}  // namespace corvina
