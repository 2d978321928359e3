// The pitch estimator's front end: each frame's 160 samples enter a 560-sample
// history, which becomes 64 log magnitudes, 64 phase-advance cosines and sines,
// 256 lag features and the loudness (all in PitchFrontEndState).
#pragma once
#include <cmath>

#include "pitch_layout.h"

namespace corvina {

// The C library's hypotf, inline where the arguments are finite: both
// squares in double (exact), their sum, its square root, one rounding to
// float, which are glibc's operations (no fused multiply-adds). Other
// arguments go to the library. (cabsf is hypotf of the two parts.)
inline float Hypot(float x, float y) {
  if (!(std::isfinite(x) && std::isfinite(y))) return std::hypot(x, y);
  const double dx = x, dy = y;
  return static_cast<float>(std::sqrt(dx * dx + dy * dy));
}

// Shifts the history by one frame, then recomputes every feature. The
// definition: its four FFTs run one at a time.
void SpectralFrontEnd(const float* input, PitchFrontEndState* state);

// The same for n streams, bit for bit, the FFTs of several streams sharing
// the lanes of vector transforms (engine/fft.h).
void SpectralFrontEndN(const float* const* inputs, PitchFrontEndState* const* states, int n);

}  // namespace corvina
