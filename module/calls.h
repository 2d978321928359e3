// One-frame model calls (the types' __call__). Each model adds its own in a
// file of its own; a type without one is not callable yet.
#pragma once
#include "python_api.h"

namespace corvina {

constexpr ternaryfunc PhoneExtractorCall = nullptr;
constexpr ternaryfunc PitchEstimatorCall = nullptr;
constexpr ternaryfunc WaveformGeneratorCall = nullptr;

}  // namespace corvina
