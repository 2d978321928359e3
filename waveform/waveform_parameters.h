#pragma once
#include "waveform_layout.h"

namespace corvina {

// Stores the synthesis window and the overlap normalisation table, each
// followed by a pointer to its first element. Called once at creation.
void StoreWaveformTables(WaveformGeneratorBlock* model);

// Fills the block from the file; aborts the process on a bad file.
void ReadWaveformGeneratorParameters(WaveformGeneratorBlock* model, const char* path);

}  // namespace corvina
