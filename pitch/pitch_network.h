// The pitch estimator's causal network: front-end features of one frame in,
// 384 bin scores out (context->scores). Advances every ring by one frame.
#pragma once
#include "pitch_layout.h"

namespace corvina {

void PitchNetwork(const PitchEstimatorBlock& model, PitchContext* context);

}  // namespace corvina
