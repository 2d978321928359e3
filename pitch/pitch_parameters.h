#pragma once
#include "pitch_layout.h"

namespace corvina {

// Fills the block from the file; aborts the process on a bad file.
void ReadPitchEstimatorParameters(PitchEstimatorBlock* model, const char* path);

}  // namespace corvina
