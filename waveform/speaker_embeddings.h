#pragma once
#include <cstdint>

namespace corvina {

// Reads at most `max_speakers` rows of 256 values; returns the number of rows
// written, or -1 when the file cannot be opened. Used by hosts that must not
// trust the file to keep its size between counting and reading.
std::int32_t ReadSpeakerEmbeddingsBounded(const char* path, float* embeddings, std::int32_t max_speakers);

}  // namespace corvina
