// Reading a parameter file straight into a model block.
//
// Files are flat little-endian half floats with no header; each tensor is read
// into its place and re-tiled there. Every failure is fatal: one line on
// stderr, then abort, so no partly read model is ever left to be used.
#pragma once
#include <cstddef>
#include <fstream>
#include <string>

#include "half.h"
#include "shared_layout.h"

namespace corvina {

[[noreturn]] void DieWithParameterError(const std::string& line);

class ParameterReader {
 public:
  explicit ParameterReader(const char* path);  // "Cannot open file <path>." on failure

  // Reads exactly `bytes` into `destination` or dies with "Too small file.".
  void Read(void* destination, std::size_t bytes);

  // Reads a tensor and re-tiles it in place.
  void ReadPanel32(f16* weight, int outputs, int inputs);
  void ReadTapPanel32(f16* weight, int outputs, int inputs, int taps);
  void ReadTapMajor(f16* weight, int channels, int taps);

  // One more byte must hit the end of the file ("Too large file." otherwise).
  void Finish();

 private:
  std::ifstream stream_;
};

// In-place re-tiling through a temporary aligned buffer of the tensor's size.
// Panel32: [out][in] -> [out/32][in][32].
void RetilePanel32(f16* weight, int outputs, int inputs);
// TapPanel32: [out][in][taps] -> [taps][out/32][in][32].
void RetileTapPanel32(f16* weight, int outputs, int inputs, int taps);
// TapMajor: [channels][taps] -> [taps][channels].
void RetileTapMajor(f16* weight, int channels, int taps);

// Readers of the layers shared by several networks.
void ReadDense256(Dense256Weights* layer, ParameterReader& reader);
void ReadDense768(Dense768Weights* layer, ParameterReader& reader);
void ReadCausalConv7(CausalConv7Weights* layer, ParameterReader& reader);
// Any shape of the residual block (the pitch estimator's as well).
template <int C, int H, int T>
void ReadResidualConvBlock(ResidualConvWeights<C, H, T>* layer, ParameterReader& reader) {
  reader.ReadTapMajor(layer->depthwise, C, T);
  reader.Read(layer->depthwise_bias, sizeof layer->depthwise_bias);
  reader.ReadPanel32(layer->expand, H, C);
  reader.Read(layer->expand_bias, sizeof layer->expand_bias);
  reader.ReadPanel32(layer->project, C, H);
  reader.Read(layer->project_bias, sizeof layer->project_bias);
}

}  // namespace corvina
