// Speaker files: 256 little-endian half floats (512 bytes) per speaker.
#include "speaker_embeddings.h"

#include <fstream>
#include <string>

#include "../engine/corvina.h"
#include "../engine/half.h"

namespace corvina {
namespace {

constexpr int kValuesPerPiece = 8;  // the file is read 16 bytes at a time

// Widens whole 16-byte pieces until the file ends or `max_values` is reached.
std::int64_t ReadPieces(std::ifstream& file, float* out, std::int64_t max_values) {
  std::int64_t written = 0;
  f16 piece[kValuesPerPiece];
  while (written + kValuesPerPiece <= max_values) {
    file.read(reinterpret_cast<char*>(piece), sizeof piece);
    if (file.eof() || !file) break;
    for (int k = 0; k < kValuesPerPiece; ++k) out[written + k] = HalfToFloat(piece[k]);
    written += kValuesPerPiece;
  }
  return written;
}

}  // namespace

std::int32_t ReadSpeakerEmbeddingsBounded(const char* path, float* embeddings, std::int32_t max_speakers) {
  std::ifstream file(std::string(path), std::ios::binary);
  if (!file.good()) return -1;
  const std::int64_t values = ReadPieces(file, embeddings, std::int64_t{max_speakers} * CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS);
  return static_cast<std::int32_t>(values / CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS);
}

}  // namespace corvina

extern "C" {

int Corvina_ReadNSpeakers(const char* path, int32_t* n_speakers) {
  std::ifstream file(std::string(path), std::ios::binary | std::ios::ate);
  if (!file.is_open()) return 1;
  const std::streamoff length = file.tellg();
  file.close();
  // A failed position query reads as -1, whose low bits are set.
  if ((length & (CORVINA_SPEAKER_EMBEDDING_BYTES - 1)) != 0) return 1;
  *n_speakers = static_cast<int32_t>(length / CORVINA_SPEAKER_EMBEDDING_BYTES);
  return 0;
}

int Corvina_ReadSpeakerEmbeddings(const char* path, float* embeddings) {
  std::ifstream file(std::string(path), std::ios::binary);
  if (!file.good()) return 1;
  corvina::ReadPieces(file, embeddings, INT64_MAX);
  return 0;
}

}  // extern "C"
