// One set of models shared by several threads, each running its own stream
// through the whole chain with its own contexts: every output must equal, bit
// for bit, the same stream run alone. Built under ThreadSanitizer in CI, where
// any write to shared engine state (the model blocks, a cache, a table)
// during processing is reported.
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/corvina.h"
#include "tests/native/check.h"

namespace {

constexpr int kThreads = 4;
constexpr int kFrames = 24;
constexpr int kFrameFloats = CORVINA_PHONE_CHANNELS + 1 + CORVINA_PITCH_FEATURES + CORVINA_OUT_HOP_LENGTH;

// Small random half floats (|x| < 0.06, exponent field below 0x2C00).
std::string WriteRandomParameters(const char* name, std::size_t bytes, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<std::uint16_t> halves(bytes / 2);
  for (auto& h : halves) h = static_cast<std::uint16_t>((rng() & 0x8000u) | (rng() % 0x2C00u));
  std::ofstream(name, std::ios::binary).write(reinterpret_cast<const char*>(halves.data()), bytes);
  return name;
}

struct Models {
  CorvinaPhoneExtractor* phone = Corvina_CreatePhoneExtractor();
  CorvinaPitchEstimator* pitch = Corvina_CreatePitchEstimator();
  CorvinaWaveformGenerator* waveform = Corvina_CreateWaveformGenerator();
  Models() {
    const unsigned seed = check::Seed();
    Corvina_ReadPhoneExtractorParameters(
        phone, WriteRandomParameters("threads_phone.bin", CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES, seed).c_str());
    Corvina_ReadPitchEstimatorParameters(
        pitch, WriteRandomParameters("threads_pitch.bin", CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES, seed + 1).c_str());
    Corvina_ReadWaveformGeneratorParameters(
        waveform,
        WriteRandomParameters("threads_waveform.bin", CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES, seed + 2).c_str());
  }
  ~Models() {
    Corvina_DestroyPhoneExtractor(phone);
    Corvina_DestroyPitchEstimator(pitch);
    Corvina_DestroyWaveformGenerator(waveform);
  }
};

// Stream k: a tone of its own pitch with noise, and its own speaker row.
// Returns every frame's outputs: 256 features, the bin, 4 pitch features,
// 240 samples.
std::vector<float> RunStream(const Models& models, int k) {
  std::mt19937 rng(check::Seed() + 100 + k);
  std::normal_distribution<float> noise(0.0f, 0.01f);
  std::vector<float> speaker(CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS);
  for (float& s : speaker) s = noise(rng) * 20.0f;
  CorvinaPhoneContext1* phone_context = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch_context = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* waveform_context = Corvina_CreateWaveformContext1();
  std::vector<float> out(static_cast<std::size_t>(kFrames) * kFrameFloats);
  float input[CORVINA_IN_HOP_LENGTH];
  for (int f = 0; f < kFrames; ++f) {
    for (int i = 0; i < CORVINA_IN_HOP_LENGTH; ++i) {
      const float t = static_cast<float>(f * CORVINA_IN_HOP_LENGTH + i) / CORVINA_IN_SAMPLE_RATE;
      input[i] = 0.3f * std::sin(6.2831853f * (110.0f + 40.0f * k) * t) + noise(rng);
    }
    float* row = out.data() + static_cast<std::size_t>(f) * kFrameFloats;
    std::int32_t bin;
    Corvina_ExtractPhone1(models.phone, input, row, phone_context);
    Corvina_EstimatePitch1(models.pitch, input, &bin, row + CORVINA_PHONE_CHANNELS + 1, pitch_context);
    std::memcpy(row + CORVINA_PHONE_CHANNELS, &bin, sizeof bin);
    Corvina_GenerateWaveform1(models.waveform, row, &bin, row + CORVINA_PHONE_CHANNELS + 1, speaker.data(),
                              row + CORVINA_PHONE_CHANNELS + 1 + CORVINA_PITCH_FEATURES, waveform_context);
  }
  Corvina_DestroyPhoneContext1(phone_context);
  Corvina_DestroyPitchContext1(pitch_context);
  Corvina_DestroyWaveformContext1(waveform_context);
  return out;
}

TEST(shared_models_give_every_thread_its_sequential_result) {
  const Models models;
  std::vector<std::vector<float>> alone(kThreads), together(kThreads);
  for (int k = 0; k < kThreads; ++k) alone[k] = RunStream(models, k);

  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int k = 0; k < kThreads; ++k) {
    threads.emplace_back([&, k] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();  // start together
      together[k] = RunStream(models, k);
    });
  }
  for (auto& t : threads) t.join();

  for (int k = 0; k < kThreads; ++k) {
    CHECK_MSG(std::memcmp(alone[k].data(), together[k].data(), alone[k].size() * sizeof(float)) == 0,
              "stream %d differs when run beside the others", k);
  }
  // The streams are finite and differ from one another, so equality above is
  // not vacuous.
  int non_finite = 0;
  for (float v : alone[0]) non_finite += !std::isfinite(v);
  CHECK_MSG(non_finite == 0, "%d non-finite outputs", non_finite);
  CHECK(std::memcmp(alone[0].data(), alone[1].data(), alone[0].size() * sizeof(float)) != 0);
}

}  // namespace

CHECK_MAIN
