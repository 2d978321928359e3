// Speaker files through the C functions: counting, reading, and failures.
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "engine/corvina.h"
#include "engine/half.h"
#include "tests/native/check.h"
#include "waveform/speaker_embeddings.h"

namespace {

std::string WriteBytes(const std::vector<std::uint16_t>& halves, std::size_t bytes, const char* name) {
  std::ofstream(name, std::ios::binary).write(reinterpret_cast<const char*>(halves.data()), bytes);
  return name;
}

std::vector<std::uint16_t> Halves(std::size_t count) {
  std::mt19937 rng(check::Seed());
  std::vector<std::uint16_t> halves(count);
  for (auto& h : halves) h = static_cast<std::uint16_t>(rng() & 0x7BFF);  // finite values of either sign
  return halves;
}

TEST(empty_file_has_no_speakers) {
  const std::string path = WriteBytes({}, 0, "speakers_0.bin");
  std::int32_t n = -1;
  CHECK(Corvina_ReadNSpeakers(path.c_str(), &n) == 0 && n == 0);
  float sentinel = 7.0f;
  CHECK(Corvina_ReadSpeakerEmbeddings(path.c_str(), &sentinel) == 0 && sentinel == 7.0f);
}

TEST(two_speakers_are_exact_widenings) {
  const auto halves = Halves(512);
  const std::string path = WriteBytes(halves, 1024, "speakers_2.bin");
  std::int32_t n = -1;
  CHECK(Corvina_ReadNSpeakers(path.c_str(), &n) == 0 && n == 2);
  std::vector<float> values(513, -1.0f);
  CHECK(Corvina_ReadSpeakerEmbeddings(path.c_str(), values.data()) == 0);
  int wrong = 0;
  for (int k = 0; k < 512; ++k) wrong += values[k] != corvina::HalfToFloat(halves[k]);
  CHECK(wrong == 0);
  CHECK(values[512] == -1.0f);  // nothing past the file's values
}

TEST(partial_speaker_is_refused_by_count_but_read_in_whole_pieces) {
  const auto halves = Halves(500);
  const std::string path = WriteBytes(halves, 1000, "speakers_1000.bin");
  std::int32_t n = 42;
  CHECK(Corvina_ReadNSpeakers(path.c_str(), &n) == 1 && n == 42);
  std::vector<float> values(512, -1.0f);
  CHECK(Corvina_ReadSpeakerEmbeddings(path.c_str(), values.data()) == 0);
  CHECK(values[495] == corvina::HalfToFloat(halves[495]) && values[496] == -1.0f);  // 62 whole 16-byte pieces
}

TEST(missing_file_fails_both) {
  std::int32_t n = 42;
  float value = 3.0f;
  CHECK(Corvina_ReadNSpeakers("no/such/speakers.bin", &n) == 1 && n == 42);
  CHECK(Corvina_ReadSpeakerEmbeddings("no/such/speakers.bin", &value) == 1 && value == 3.0f);
  CHECK(corvina::ReadSpeakerEmbeddingsBounded("no/such/speakers.bin", &value, 1) == -1);
}

TEST(bounded_reader_stops_at_its_row_limit) {
  const auto halves = Halves(768);
  const std::string path = WriteBytes(halves, 1536, "speakers_3.bin");
  std::vector<float> values(600, -1.0f);
  CHECK(corvina::ReadSpeakerEmbeddingsBounded(path.c_str(), values.data(), 2) == 2);
  CHECK(values[511] == corvina::HalfToFloat(halves[511]) && values[512] == -1.0f);
}

}  // namespace

CHECK_MAIN
