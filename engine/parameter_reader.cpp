#include "parameter_reader.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>

namespace corvina {

void DieWithParameterError(const std::string& line) {
  std::cerr << line << std::endl;
  std::abort();
}

ParameterReader::ParameterReader(const char* path) : stream_(std::string(path), std::ios::binary) {
  if (!stream_.good()) DieWithParameterError("Cannot open file " + std::string(path) + ".");
}

void ParameterReader::Read(void* destination, std::size_t bytes) {
  stream_.read(static_cast<char*>(destination), static_cast<std::streamsize>(bytes));
  if (stream_.eof()) DieWithParameterError("Too small file.");
}

void ParameterReader::ReadPanel32(f16* weight, int outputs, int inputs) {
  Read(weight, sizeof(f16) * outputs * inputs);
  RetilePanel32(weight, outputs, inputs);
}

void ParameterReader::ReadTapPanel32(f16* weight, int outputs, int inputs, int taps) {
  Read(weight, sizeof(f16) * outputs * inputs * taps);
  RetileTapPanel32(weight, outputs, inputs, taps);
}

void ParameterReader::ReadTapMajor(f16* weight, int channels, int taps) {
  Read(weight, sizeof(f16) * channels * taps);
  RetileTapMajor(weight, channels, taps);
}

void ParameterReader::Finish() {
  char extra;
  stream_.read(&extra, 1);
  if (!stream_.eof()) DieWithParameterError("Too large file.");
  stream_.close();
}

namespace {

// Copies the tensor aside, lets `place` write each element at its new index,
// and frees the copy; reading happens once per model, so plain loops suffice.
template <typename Place>
void Retile(f16* weight, std::size_t count, Place place) {
  const std::size_t bytes = count * sizeof(f16);
  f16* original = static_cast<f16*>(::operator new(bytes, std::align_val_t{64}));
  std::memcpy(original, weight, bytes);
  place(original, weight);
  ::operator delete(original, std::align_val_t{64});
}

}  // namespace

void RetilePanel32(f16* weight, int outputs, int inputs) {
  RetileTapPanel32(weight, outputs, inputs, 1);
}

void RetileTapPanel32(f16* weight, int outputs, int inputs, int taps) {
  const std::size_t count = static_cast<std::size_t>(outputs) * inputs * taps;
  Retile(weight, count, [=](const f16* from, f16* to) {
    for (int o = 0; o < outputs; ++o)
      for (int i = 0; i < inputs; ++i)
        for (int t = 0; t < taps; ++t)
          to[static_cast<std::size_t>(t) * outputs * inputs + (o / kPanel) * (inputs * kPanel) + i * kPanel +
             o % kPanel] = from[(static_cast<std::size_t>(o) * inputs + i) * taps + t];
  });
}

void RetileTapMajor(f16* weight, int channels, int taps) {
  Retile(weight, static_cast<std::size_t>(channels) * taps, [=](const f16* from, f16* to) {
    for (int c = 0; c < channels; ++c)
      for (int t = 0; t < taps; ++t) to[t * channels + c] = from[c * taps + t];
  });
}

void ReadDense256(Dense256Weights* layer, ParameterReader& reader) {
  reader.ReadPanel32(layer->weight, kChannels, kChannels);
  reader.Read(layer->bias, sizeof layer->bias);
}

void ReadDense768(Dense768Weights* layer, ParameterReader& reader) {
  // Both tensors are read before the weight is re-tiled.
  reader.Read(layer->weight, sizeof layer->weight);
  reader.Read(layer->bias, sizeof layer->bias);
  RetilePanel32(layer->weight, kHiddenChannels, kChannels);
}

void ReadCausalConv7(CausalConv7Weights* layer, ParameterReader& reader) {
  reader.ReadTapPanel32(layer->weight, kChannels, kChannels, kCausalConvTaps);
  reader.Read(layer->bias, sizeof layer->bias);
}

}  // namespace corvina
