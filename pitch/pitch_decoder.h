// Turns the network's 384 bin scores into a pitch bin and three pitch features.
#pragma once
#include <cstdint>

#include "pitch_layout.h"

namespace corvina {

constexpr int kPitchWindow = 48;                          // bins summed per candidate window
constexpr int kPitchWindows = kPitchBins - kPitchWindow + 1;  // 337 windows, j = 0..336

struct PitchDecision {
  std::int32_t bin;   // 1..383: the most probable bin of the heaviest window
  float p0;           // probability of bin 0 ("no pitch"), kept apart
  float lower_ratio;  // window mass one octave below / chosen window's mass, or 0
  float upper_ratio;  // window mass one octave above / chosen window's mass, or 0
  int window;         // j*, the first bin of the chosen window
};

PitchDecision DecodePitch(const float* scores);

}  // namespace corvina
