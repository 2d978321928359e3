// What the chain benchmarks share: the three models (parameter files or the
// shared random models), the input signal and speaker, timing summaries, the
// processor's name and the load average.
#pragma once
#include <cpuid.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/speech_and_random_models.h"
#include "engine/corvina.h"

namespace corvina::bench {

using Clock = std::chrono::steady_clock;

inline double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

// The three model blocks, read from phone, pitch and generator files when
// `files` names them, else the shared random models.
struct Models {
  CorvinaPhoneExtractor* phone;
  CorvinaPitchEstimator* pitch;
  CorvinaWaveformGenerator* waveform;
  bool from_files;

  explicit Models(const char* const files[3]) : from_files(files[0] != nullptr) {
    if (from_files) {
      phone = Corvina_CreatePhoneExtractor();
      pitch = Corvina_CreatePitchEstimator();
      waveform = Corvina_CreateWaveformGenerator();
      Corvina_ReadPhoneExtractorParameters(phone, files[0]);
      Corvina_ReadPitchEstimatorParameters(pitch, files[1]);
      Corvina_ReadWaveformGeneratorParameters(waveform, files[2]);
    } else {
      phone = reinterpret_cast<CorvinaPhoneExtractor*>(synthetic::RandomPhoneModel(1).release());
      pitch = reinterpret_cast<CorvinaPitchEstimator*>(synthetic::RandomPitchModel(2).release());
      waveform = reinterpret_cast<CorvinaWaveformGenerator*>(synthetic::RandomWaveformModel(3).release());
    }
  }
  Models(const Models&) = delete;
  Models& operator=(const Models&) = delete;
  ~Models() {
    Corvina_DestroyWaveformGenerator(waveform);
    Corvina_DestroyPitchEstimator(pitch);
    Corvina_DestroyPhoneExtractor(phone);
  }

  const char* weights() const { return from_files ? "parameter files" : "random models"; }
};

// The shared speech-like signal: the pitch path sees changing bins.
inline std::vector<float> Signal(int frames) { return synthetic::SpeechLikeSignal(frames, 3); }

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
