// The speaker-file functions on random files and on paths that name no
// regular file. Every buffer ends in one 16-byte piece of sentinels past what
// the functions' contract allows: a piece written too many shows in any
// build, and under AddressSanitizer so does any write beyond it.
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "engine/corvina.h"
#include "engine/half.h"
#include "tests/native/check.h"
#include "waveform/speaker_embeddings.h"

namespace {

constexpr int kChannels = CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS;

std::vector<std::uint16_t> WriteRandomFile(const std::string& path, std::size_t bytes, std::mt19937& rng) {
  std::vector<std::uint16_t> halves((bytes + 1) / 2);
  for (auto& h : halves) h = static_cast<std::uint16_t>(rng());
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(halves.data()), bytes);
  return halves;
}

constexpr float kSentinel = -7.0f;
constexpr std::size_t kPad = 8;

std::vector<float> Padded(std::size_t values) { return std::vector<float>(values + kPad, kSentinel); }

bool PadIntact(const std::vector<float>& v) {
  for (std::size_t i = v.size() - kPad; i < v.size(); ++i)
    if (v[i] != kSentinel) return false;
  return true;
}

// Checks one regular file of `bytes` bytes whose first halves are `halves`.
void CheckRegularFile(const std::string& path, std::size_t bytes, const std::vector<std::uint16_t>& halves) {
  std::int32_t count = -7;
  const int counted = Corvina_ReadNSpeakers(path.c_str(), &count);
  CHECK_MSG(counted == (bytes % 512 != 0), "%zu bytes: count result %d", bytes, counted);
  CHECK_MSG(counted ? count == -7 : count == static_cast<std::int32_t>(bytes / 512), "%zu bytes: count %d", bytes,
            count);
  // Unbounded reader: exactly the whole 16-byte pieces of the file.
  const std::size_t values = bytes / 16 * 8;
  std::vector<float> all = Padded(values);
  CHECK(Corvina_ReadSpeakerEmbeddings(path.c_str(), all.data()) == 0);
  int wrong = !PadIntact(all);
  for (std::size_t i = 0; i < values; ++i) {
    const float want = corvina::HalfToFloat(halves[i]);
    wrong += std::memcmp(&all[i], &want, sizeof want) != 0;  // bits: NaN halves included
  }
  CHECK_MSG(wrong == 0, "%zu bytes: %d values differ", bytes, wrong);
  // Bounded reader: never more rows than asked for, nor than the file holds.
  for (std::int32_t rows : {0, 1, 3}) {
    std::vector<float> some = Padded(static_cast<std::size_t>(rows) * kChannels);
    const std::int32_t got = corvina::ReadSpeakerEmbeddingsBounded(path.c_str(), some.data(), rows);
    const auto whole = static_cast<std::int32_t>(bytes / 512);
    CHECK_MSG(got == (rows < whole ? rows : whole) && PadIntact(some), "%zu bytes, %d rows asked: %d read",
              bytes, rows, got);
  }
}

TEST(random_files_are_counted_and_read_within_their_bounds) {
  std::mt19937 rng(check::Seed());
  std::vector<std::size_t> sizes = {0, 1, 15, 16, 17, 511, 512, 513, 1024, 1000, 4096};
  for (int k = 0; k < 30; ++k) sizes.push_back(rng() % 6000);
  for (int k = 0; k < 5; ++k) sizes.push_back(512 * (1 + rng() % 12));
  for (std::size_t bytes : sizes) {
    const std::string path = "speaker_fuzz.bin";
    CheckRegularFile(path, bytes, WriteRandomFile(path, bytes, rng));
  }
}

TEST(paths_that_name_no_regular_file) {
  mkdir("speaker_fuzz_dir", 0700);
  // The unbounded reader is only handed what its count vouches for: a
  // character device such as /dev/zero reports no length and never ends, so
  // it is left to the bounded reader.
  const struct {
    const char* path;
    bool trust_count;
  } cases[] = {{"speaker_fuzz_dir", true}, {"", true}, {"/dev/null", true}, {"/dev/zero", false},
               {"/proc/self/status", false}};
  for (const auto& c : cases) {
    std::int32_t count = 0;
    if (Corvina_ReadNSpeakers(c.path, &count) == 0 && c.trust_count) {
      CHECK_MSG(count >= 0, "%s: count %d", c.path, count);
      std::vector<float> values = Padded(static_cast<std::size_t>(count) * kChannels);
      Corvina_ReadSpeakerEmbeddings(c.path, values.data());  // a directory reports a size but reads nothing
      CHECK_MSG(PadIntact(values), "%s: read past its count", c.path);
    }
    std::vector<float> rows = Padded(2 * kChannels);
    const std::int32_t got = corvina::ReadSpeakerEmbeddingsBounded(c.path, rows.data(), 2);
    CHECK_MSG(got <= 2 && PadIntact(rows), "%s: %d rows", c.path, got);
  }
}

TEST(missing_file_fails_every_reader_and_writes_nothing) {
  std::int32_t count = 42;
  float value = 3.0f;
  CHECK(Corvina_ReadNSpeakers("no/such/file.bin", &count) == 1 && count == 42);
  CHECK(Corvina_ReadSpeakerEmbeddings("no/such/file.bin", &value) == 1 && value == 3.0f);
  CHECK(corvina::ReadSpeakerEmbeddingsBounded("no/such/file.bin", &value, 1) == -1 && value == 3.0f);
}

}  // namespace

CHECK_MAIN
