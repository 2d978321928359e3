// The pitch estimator's front end: each frame's 160 samples enter a 560-sample
// history, which becomes 64 log magnitudes, 64 phase-advance cosines and sines,
// 256 lag features and the loudness (all in PitchFrontEndState).
#pragma once
#include "pitch_layout.h"

namespace corvina {

constexpr int kNewestSamples = 304;  // the window every lag is compared over
constexpr int kCorrelationOffset = kNewestSamples - 1;  // lag l sits at 303 + l

// Shifts the history by one frame, then recomputes every feature.
void SpectralFrontEnd(const float* input, PitchFrontEndState* state);

// correlation[303 + l] = sum over m < 304 of x[256 + m] * x[256 + m - l], for
// l = 1..256, computed by FFT (the other 304 entries are by-products).
void LagCorrelation(const float* history, float* correlation);

}  // namespace corvina
