// What the chain benchmarks share: the three models (parameter files or small
// random halves), the input signal and speaker, timing summaries, the
// processor's name and the load average.
#pragma once
#include <cpuid.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "engine/corvina.h"
#include "engine/half.h"

namespace corvina::bench {

using Clock = std::chrono::steady_clock;

inline double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

// Halves of magnitude 2^-9 to 2^-4 with random signs over `bytes` from `start`.
inline void FillRandomHalves(void* start, std::size_t bytes, unsigned seed) {
  auto* halves = static_cast<f16*>(start);
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> exponent(6, 10), mantissa(0, 1023), sign(0, 1);
  for (std::size_t i = 0; i < bytes / sizeof(f16); ++i)
    halves[i] = static_cast<f16>((sign(rng) << 15) | (exponent(rng) << 10) | mantissa(rng));
}

// The three model blocks, read from phone, pitch and generator files when
// `files` names them, else filled with random halves.
struct Models {
  CorvinaPhoneExtractor* phone = Corvina_CreatePhoneExtractor();
  CorvinaPitchEstimator* pitch = Corvina_CreatePitchEstimator();
  CorvinaWaveformGenerator* waveform = Corvina_CreateWaveformGenerator();
  bool from_files;

  explicit Models(const char* const files[3]) : from_files(files[0] != nullptr) {
    if (from_files) {
      Corvina_ReadPhoneExtractorParameters(phone, files[0]);
      Corvina_ReadPitchEstimatorParameters(pitch, files[1]);
      Corvina_ReadWaveformGeneratorParameters(waveform, files[2]);
    } else {
      FillRandomHalves(phone, CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES, 1);
      // The estimator block keeps a 64-byte lead the file never fills.
      FillRandomHalves(reinterpret_cast<char*>(pitch) + 64, CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES, 2);
      FillRandomHalves(waveform, CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES, 3);
    }
  }
  Models(const Models&) = delete;
  Models& operator=(const Models&) = delete;
  ~Models() {
    Corvina_DestroyWaveformGenerator(waveform);
    Corvina_DestroyPitchEstimator(pitch);
    Corvina_DestroyPhoneExtractor(phone);
  }

  const char* weights() const { return from_files ? "parameter files" : "random halves"; }
};

// A gliding voiced tone with noise: the pitch path sees changing bins.
inline std::vector<float> Signal(int frames) {
  std::vector<float> x(static_cast<std::size_t>(frames) * CORVINA_IN_HOP_LENGTH);
  std::mt19937 rng(3);
  std::normal_distribution<float> noise(0.0f, 0.02f);
  double phase = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    phase += 2.0 * 3.14159265358979 * (120.0 + 80.0 * std::sin(static_cast<double>(i) * 2e-5)) / 16000.0;
    x[i] = 0.3f * static_cast<float>(std::sin(phase) + 0.4 * std::sin(2.0 * phase)) + noise(rng);
  }
  return x;
}

inline std::vector<float> Speaker() {
  std::vector<float> speaker(CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS);
  for (std::size_t i = 0; i < speaker.size(); ++i) speaker[i] = 0.3f * static_cast<float>(std::sin(0.7 * i));
  return speaker;
}

struct Stats {
  double median, p99, worst;
};

inline Stats Summarise(std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  return {micros[micros.size() / 2], micros[std::min(micros.size() - 1, micros.size() * 99 / 100)], micros.back()};
}

inline std::string ProcessorName() {
  unsigned regs[12] = {};
  for (unsigned leaf = 0; leaf < 3; ++leaf)
    __get_cpuid(0x80000002u + leaf, &regs[4 * leaf], &regs[4 * leaf + 1], &regs[4 * leaf + 2], &regs[4 * leaf + 3]);
  char brand[49] = {};
  std::memcpy(brand, regs, 48);
  unsigned eax = 0, ebx, ecx, edx;
  __get_cpuid(1, &eax, &ebx, &ecx, &edx);
  const unsigned family = ((eax >> 8) & 0xF) + ((eax >> 20) & 0xFF);
  const unsigned model = ((eax >> 4) & 0xF) | ((eax >> 12) & 0xF0);
  std::string name(brand);
  name.erase(name.find_last_not_of(' ') + 1);
  return name + " (family " + std::to_string(family) + ", model " + std::to_string(model) + ")";
}

// The one-minute load average.
inline double LoadAverage() {
  double load[3] = {};
  getloadavg(load, 3);
  return load[0];
}

// `path` opened for writing, or null with a message on stderr.
inline std::FILE* OpenJson(const char* path) {
  std::FILE* out = std::fopen(path, "w");
  if (out == nullptr) std::fprintf(stderr, "cannot write %s\n", path);
  return out;
}

}  // namespace corvina::bench
