// Every tensor of every parameter file lands where the block layout says,
// re-tiled by its scheme. Files hold random 16-bit words, so each element can
// be traced; expected positions are computed here from the tensor lists,
// independently of the readers.
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "engine/corvina.h"
#include "phone/phone_layout.h"
#include "pitch/pitch_layout.h"
#include "tests/native/check.h"
#include "waveform/waveform_layout.h"

namespace {

enum Scheme { kPlain, kPanel32, kTapPanel32, kTapMajor };

// One tensor of a file: its shape as stored in the file and its scheme.
struct Tensor {
  Scheme scheme;
  int out, in, taps;  // plain: out values; TapMajor: out = channels
  std::size_t block_offset;
  std::size_t Count() const { return static_cast<std::size_t>(out) * in * taps; }
};

// Where file element (o, i, t) of a tensor goes, counted in halves from the tensor's start.
std::size_t Destination(const Tensor& x, int o, int i, int t) {
  switch (x.scheme) {
    case kPanel32:
    case kTapPanel32:
      return static_cast<std::size_t>(t) * x.out * x.in + static_cast<std::size_t>(o / 32) * x.in * 32 + i * 32 + o % 32;
    case kTapMajor:
      return static_cast<std::size_t>(t) * x.out + o;
    default:
      return (static_cast<std::size_t>(o) * x.in + i) * x.taps + t;
  }
}

std::vector<std::uint16_t> RandomWords(std::size_t count, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<std::uint16_t> words(count);
  for (auto& w : words) w = static_cast<std::uint16_t>(rng());
  return words;
}

std::string WriteFile(const std::vector<std::uint16_t>& words, const char* name) {
  const std::string path = std::string("layout_") + name + ".bin";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(words.data()), words.size() * 2);
  return path;
}

// Checks every element and returns the number of halves the list covers.
std::size_t CheckTensors(const std::vector<Tensor>& tensors, const std::vector<std::uint16_t>& file,
                         const std::uint8_t* block) {
  std::size_t position = 0, mismatches = 0;
  for (const Tensor& x : tensors) {
    const auto* base = reinterpret_cast<const std::uint16_t*>(block + x.block_offset);
    for (int o = 0; o < x.out; ++o)
      for (int i = 0; i < x.in; ++i)
        for (int t = 0; t < x.taps; ++t) {
          const std::size_t in_file = position + (static_cast<std::size_t>(o) * x.in + i) * x.taps + t;
          if (base[Destination(x, o, i, t)] != file[in_file]) ++mismatches;
        }
    position += x.Count();
  }
  CHECK_MSG(mismatches == 0, "%zu misplaced halves", mismatches);
  return position;
}

bool AllZero(const std::uint8_t* p, std::size_t n) {
  for (std::size_t k = 0; k < n; ++k)
    if (p[k] != 0) return false;
  return true;
}

// Appends tensors at consecutive block offsets, each rounded up to 64 bytes.
struct TensorList {
  std::vector<Tensor> tensors;
  std::size_t offset;
  void Add(Scheme scheme, int out, int in = 1, int taps = 1, std::size_t gap = 0) {
    tensors.push_back({scheme, out, in, taps, offset});
    offset += (tensors.back().Count() * 2 + 63) / 64 * 64 + gap;
  }
  void Vector(int n) { Add(kPlain, n); }
  void Dense(int out, int in) { Add(kPanel32, out, in), Vector(out); }
};

// Writes random words as `name`'s file, reads it into `model` and checks that
// every tensor of `list` lands in place and the list covers the file.
template <typename Model>
std::vector<std::uint16_t> ReadAndCheck(Model* model, int (*read)(Model*, const char*), std::size_t bytes,
                                        unsigned seed, const char* name, const TensorList& list) {
  const auto file = RandomWords(bytes / 2, seed);
  CHECK(read(model, WriteFile(file, name).c_str()) == 0);
  CHECK(CheckTensors(list.tensors, file, reinterpret_cast<const std::uint8_t*>(model)) * 2 == bytes);
  return file;
}

void AddResidualConvBlock(TensorList& list, int channels, int hidden, int taps) {
  list.Add(kTapMajor, channels, 1, taps), list.Vector(channels);
  list.Dense(hidden, channels), list.Dense(channels, hidden);
}

TEST(phone_extractor_tensors_land_in_place) {
  TensorList list{{}, 0};
  list.Add(kTapMajor, 32, 1, 10, 64);
  list.Add(kTapPanel32, 64, 32, 3, 64);
  list.Add(kTapPanel32, 128, 64, 3, 64);
  list.Add(kTapPanel32, 256, 128, 3, 64);
  list.Add(kTapPanel32, 256, 256, 3, 64);
  list.Add(kTapPanel32, 256, 256, 2, 64);
  list.Dense(256, 256);
  for (int k = 0; k < 6; ++k) list.Dense(768, 256);
  list.Add(kTapPanel32, 256, 256, 7), list.Vector(256);
  list.Vector(256), list.Vector(256);
  for (int k = 0; k < 8; ++k) AddResidualConvBlock(list, 256, 768, 17);
  list.Vector(256), list.Vector(256);
  list.Dense(256, 256);
  CHECK(list.offset == 10847744);

  auto* model = Corvina_CreatePhoneExtractor();
  const auto file = ReadAndCheck(model, Corvina_ReadPhoneExtractorParameters,
                                 CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES, check::Seed(), "phone", list);
  const auto* block = reinterpret_cast<const std::uint8_t*>(model);
  for (std::size_t gap : {640, 13056 - 64, 62272 - 64, 258944 - 64, 652224 - 64, 914432 - 64})
    CHECK(AllZero(block + gap, 64));

  // The worked example: tensor 2 element (o 40, i 5, t 2) sits at half 5288.
  const std::size_t in_file = 320 + (40 * 32 + 5) * 3 + 2;
  CHECK(reinterpret_cast<const std::uint16_t*>(block + 704)[5288] == file[in_file]);

  // Reading the same file again changes nothing.
  std::vector<std::uint8_t> first(block, block + sizeof(corvina::PhoneExtractorBlock));
  Corvina_ReadPhoneExtractorParameters(model, WriteFile(file, "phone").c_str());
  CHECK(std::equal(first.begin(), first.end(), block));
  Corvina_DestroyPhoneExtractor(model);
}

TEST(pitch_estimator_tensors_land_in_place) {
  TensorList list{{}, 64};
  list.Dense(192, 192), list.Dense(192, 192), list.Dense(192, 256), list.Dense(192, 192);
  list.Add(kTapPanel32, 192, 192, 3), list.Vector(192);
  list.Vector(192), list.Vector(192);
  for (int k = 0; k < 6; ++k) AddResidualConvBlock(list, 192, 576, 33);
  list.Vector(192), list.Vector(192);
  list.Dense(384, 192);
  CHECK(list.offset == 3434176);

  auto* model = Corvina_CreatePitchEstimator();
  const auto file = ReadAndCheck(model, Corvina_ReadPitchEstimatorParameters,
                                 CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES, check::Seed() + 1, "pitch", list);
  const auto* block = reinterpret_cast<const std::uint8_t*>(model);
  CHECK(AllZero(block, 64));
  // Tensor 1, output r = 5 of tile 0, input k = 7: block position 64 + 2 (k 32 + r).
  CHECK(reinterpret_cast<const std::uint16_t*>(block + 64)[7 * 32 + 5] == file[5 * 192 + 7]);
  Corvina_DestroyPitchEstimator(model);
}

TEST(waveform_generator_tensors_land_in_place_and_tables_stay) {
  TensorList list{{}, 0};
  list.Dense(256, 256);
  list.Add(kPlain, 384, 256);
  list.Dense(256, 4);
  list.Add(kTapPanel32, 256, 256, 7), list.Vector(256);
  list.Vector(256), list.Vector(256);
  for (int k = 0; k < 4; ++k) AddResidualConvBlock(list, 256, 768, 17);
  list.Vector(256), list.Vector(256);
  list.Add(kTapPanel32, 256, 256, 7), list.Vector(256);
  list.Add(kTapPanel32, 128, 256, 10), list.Vector(128);
  list.Add(kTapPanel32, 64, 128, 6), list.Vector(64);
  for (int channels : {128, 64})
    for (int kernel : {3, 7, 11})
      for (int k = 0; k < 6; ++k) list.Add(kTapPanel32, channels, channels, kernel), list.Vector(channels);
  list.Add(kTapMajor, 36 * 64, 1, 7), list.Vector(36);  // [out][in][k] -> [k][out][in]
  list.Dense(384, 64), list.Dense(384, 128);
  list.Add(kTapMajor, 4, 1, 63);
  CHECK(list.offset == CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES + 64);

  auto* model = Corvina_CreateWaveformGenerator();
  const auto* layout = reinterpret_cast<const corvina::WaveformGeneratorBlock*>(model);
  const std::uint32_t window[16] = {0,          0x3D1BE50C, 0x3E15F61A, 0x3E9E0875, 0x3F000000, 0x3F30FBC5,
                                    0x3F5A827A, 0x3F7641AF, 0x3F800000, 0x3F7641AF, 0x3F5A827A, 0x3F30FBC5,
                                    0x3F000000, 0x3E9E0875, 0x3E15F61A, 0x3D1BE50C};
  const std::uint32_t two_thirds[16] = {0x3F2AAAAB, 0x3F2AAAAC, 0x3F2AAAAB, 0x3F2AAAAB};
  auto check_tables = [&] {
    CHECK(std::memcmp(layout->window, window, sizeof window) == 0);
    CHECK(std::memcmp(layout->overlap_scale, two_thirds, sizeof two_thirds) == 0);
    CHECK(layout->window_table == layout->window);
    CHECK(layout->overlap_scale_table == layout->overlap_scale);
  };
  check_tables();

  const auto file = ReadAndCheck(model, Corvina_ReadWaveformGeneratorParameters,
                                 CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES, check::Seed() + 2, "waveform", list);
  check_tables();
  // Pitch bin b selects the 256 halves that start at half 65792 + 256 b of the file.
  for (int b : {0, 1, 200, 383})
    CHECK(std::memcmp(layout->pitch_embedding[b], &file[65792 + 256 * b], 512) == 0);
  CHECK(AllZero(layout->pad115, sizeof layout->pad115) && AllZero(layout->pad120, sizeof layout->pad120));
  Corvina_DestroyWaveformGenerator(model);
}

TEST(fresh_contexts_are_zero_and_aligned) {
  auto zero = [](const void* p, std::size_t n) {
    return reinterpret_cast<std::uintptr_t>(p) % 64 == 0 && AllZero(static_cast<const std::uint8_t*>(p), n);
  };
  auto* phone = Corvina_CreatePhoneContext1();
  auto* pitch = Corvina_CreatePitchContext1();
  auto* waveform = Corvina_CreateWaveformContext1();
  CHECK(zero(phone, 230976) && zero(pitch, 184768) && zero(waveform, 419648));
  Corvina_DestroyPhoneContext1(phone);
  Corvina_DestroyPitchContext1(pitch);
  Corvina_DestroyWaveformContext1(waveform);
}

}  // namespace

CHECK_MAIN
