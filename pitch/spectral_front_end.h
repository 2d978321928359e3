// The pitch estimator's front end: each frame's 160 samples enter a 560-sample
// history, which becomes 64 log magnitudes, 64 phase-advance cosines and sines,
// 256 lag features and the loudness (all in PitchFrontEndState).
#pragma once
#include "pitch_layout.h"

namespace corvina {

// Shifts the history by one frame, then recomputes every feature. The
// definition: its four FFTs run one at a time.
void SpectralFrontEnd(const float* input, PitchFrontEndState* state);

// The same for n streams, bit for bit, the FFTs of several streams sharing
// the lanes of vector transforms (engine/fft.h).
void SpectralFrontEndN(const float* const* inputs, PitchFrontEndState* const* states, int n);

}  // namespace corvina
