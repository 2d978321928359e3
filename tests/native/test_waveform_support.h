// One random frame of the waveform generator's inputs, for its native tests.
#pragma once
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "test_support.h"
#include "waveform/waveform_layout.h"

namespace waveform_test {

using namespace corvina;
using namespace test_support;

// One frame's inputs with the entry point's table of four references.
struct FrameInputs {
  alignas(64) float phone[kChannels];
  alignas(64) float pitch_features[CORVINA_PITCH_FEATURES];
  alignas(64) float speaker[kChannels];
  std::int32_t pitch_bin = 0;
  const void* table[4];

  FrameInputs() : table{speaker, pitch_features, &pitch_bin, phone} {}
  FrameInputs(const FrameInputs&) = delete;

  void Randomize(Rng& rng) {
    FillFloats(phone, kChannels, 1.0f, rng);
    FillFloats(pitch_features, CORVINA_PITCH_FEATURES, 1.0f, rng);
    FillFloats(speaker, kChannels, 0.5f, rng);
    pitch_bin = std::uniform_int_distribution<int>(0, CORVINA_PITCH_BINS - 1)(rng);
  }
};

}  // namespace waveform_test
