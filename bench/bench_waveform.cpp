// Waveform generator speed: microseconds per 10 ms frame of
// Corvina_GenerateWaveform1 (median and 99th percentile over 2000 frames after
// 200 warm-up frames, one thread), the real-time factor 10 ms / median, each
// stage's share of the frame, and the whole chain (phone + pitch + waveform)
// when phone and pitch parameter files are given.
//   cmake --build build/waveform --target bench_waveform &&
//   build/waveform/bench/bench_waveform [generator.bin [phone.bin pitch.bin]]
// bench/bench_waveform.py writes well-conditioned random files and runs this.
// Without a file the generator's weights are small uniform random values.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <random>
#include <vector>

#include "bench/speech_and_random_models.h"
#include "engine/corvina.h"
#include "engine/kernels.h"
#include "waveform/waveform_kernels.h"
#include "waveform/waveform_layout.h"

using namespace corvina;

namespace {

constexpr int kWarmUp = 200;
constexpr int kFrames = 2000;
using Clock = std::chrono::steady_clock;

double Micros(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::micro>(b - a).count();
}

struct Summary {
  double median, p99;
};

Summary Summarise(std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  return {micros[micros.size() / 2], micros[micros.size() * 99 / 100]};
}

void Print(const char* what, const Summary& s) {
  std::printf("%s: median %.1f us/frame, p99 %.1f us/frame, real-time factor %.1f (%d frames)\n", what, s.median,
              s.p99, 10000.0 / s.median, kFrames);
}

struct Frame {
  float phone[kChannels];
  std::int32_t pitch_bin;
  float pitch_features[CORVINA_PITCH_FEATURES];
  float speaker[kChannels];
};

std::vector<Frame> RandomFrames(int n) {
  std::mt19937 rng(2);
  std::normal_distribution<float> normal(0.0f, 1.0f);
  std::vector<Frame> frames(n);
  for (int f = 0; f < n; ++f) {
    for (float& v : frames[f].phone) v = normal(rng);
    frames[f].pitch_bin = 60 + (f * 7) % 300;
    for (float& v : frames[f].pitch_features) v = normal(rng);
    for (float& v : frames[f].speaker) v = 0.3f * normal(rng);
  }
  return frames;
}

void BenchGenerator(const WaveformGeneratorBlock* model) {
  const std::vector<Frame> frames = RandomFrames(kWarmUp + kFrames);
  auto* api_model = reinterpret_cast<const CorvinaWaveformGenerator*>(model);
  CorvinaWaveformContext1* context = Corvina_CreateWaveformContext1();
  float output[kOutHop];
  std::vector<double> micros;
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const Frame& in = frames[f];
    const auto start = Clock::now();
    Corvina_GenerateWaveform1(api_model, in.phone, &in.pitch_bin, in.pitch_features, in.speaker, output, context);
    const auto stop = Clock::now();
    if (f >= kWarmUp) micros.push_back(Micros(start, stop));
  }
  Print("Corvina_GenerateWaveform1", Summarise(micros));
  Corvina_DestroyWaveformContext1(context);

  // The same frames stage by stage, in the order of the generator's frame.
  const char* names[] = {"frame network", "upsampling 1", "stage-1 stack + SiLU", "upsampling 2",
                         "stage-2 stack + SiLU", "spectral synthesis"};
  constexpr int kStages = 6;
  std::vector<double> stage_micros[kStages];
  auto* state = reinterpret_cast<WaveformContext*>(Corvina_CreateWaveformContext1());
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const Frame& in = frames[f];
    const void* inputs[4] = {in.speaker, in.pitch_features, &in.pitch_bin, in.phone};
    Clock::time_point t[kStages + 1];
    t[0] = Clock::now();
    const float* x = avx2::FrameNetwork(*model, inputs, state);
    t[1] = Clock::now();
    avx2::UpsampleFirst(model->upsample1, model->upsample1_bias, x, state->upsample1_carry, &state->upsample1_index,
                        state->stage1[0]);
    t[2] = Clock::now();
    float* stage1 = avx2::ResidualStack(model->stack1, state->stage1[0], &state->stack1);
    avx2::SiluInPlace(stage1, kStage1Steps * kStage1Channels);
    t[3] = Clock::now();
    avx2::UpsampleSecond(model->upsample2, model->upsample2_bias, stage1, state->upsample2_carry,
                         &state->upsample2_index, state->stage2[0]);
    t[4] = Clock::now();
    float* stage2 = avx2::ResidualStack(model->stack2, state->stage2[0], &state->stack2);
    avx2::SiluInPlace(stage2, kStage2Steps * kStage2Channels);
    t[5] = Clock::now();
    avx2::SpectralSynthesis(*model, stage2, &state->synthesis);
    t[6] = Clock::now();
    if (f >= kWarmUp)
      for (int s = 0; s < kStages; ++s) stage_micros[s].push_back(Micros(t[s], t[s + 1]));
  }
  double total = 0.0;
  Summary stages[kStages];
  // Shares of the summed medians: robust to the odd preempted frame.
  for (int s = 0; s < kStages; ++s) total += (stages[s] = Summarise(stage_micros[s])).median;
  std::printf("stages (median us, p99 us, share of the summed medians %.1f us):\n", total);
  for (int s = 0; s < kStages; ++s)
    std::printf("  %-22s %8.1f %8.1f %6.1f%%\n", names[s], stages[s].median, stages[s].p99,
                100.0 * stages[s].median / total);
  Corvina_DestroyWaveformContext1(reinterpret_cast<CorvinaWaveformContext1*>(state));
}

void BenchChain(const CorvinaWaveformGenerator* generator, const char* phone_path, const char* pitch_path) {
  CorvinaPhoneExtractor* extractor = Corvina_CreatePhoneExtractor();
  Corvina_ReadPhoneExtractorParameters(extractor, phone_path);
  CorvinaPitchEstimator* estimator = Corvina_CreatePitchEstimator();
  Corvina_ReadPitchEstimatorParameters(estimator, pitch_path);
  CorvinaPhoneContext1* phone_context = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch_context = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* context = Corvina_CreateWaveformContext1();

  const std::vector<float> signal = synthetic::SpeechLikeSignal(kWarmUp + kFrames, 3);
  std::mt19937 rng(3);
  std::normal_distribution<float> normal(0.0f, 0.3f);
  std::vector<float> speaker(kChannels);
  for (float& v : speaker) v = normal(rng);
  float phone[kChannels], pitch_features[CORVINA_PITCH_FEATURES], output[kOutHop];
  std::int32_t pitch_bin = 0;
  std::vector<double> micros;
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const float* input = signal.data() + static_cast<std::size_t>(f) * CORVINA_IN_HOP_LENGTH;
    const auto start = Clock::now();
    Corvina_ExtractPhone1(extractor, input, phone, phone_context);
    Corvina_EstimatePitch1(estimator, input, &pitch_bin, pitch_features, pitch_context);
    Corvina_GenerateWaveform1(generator, phone, &pitch_bin, pitch_features, speaker.data(), output, context);
    const auto stop = Clock::now();
    if (f >= kWarmUp) micros.push_back(Micros(start, stop));
  }
  Print("chain (phone + pitch + waveform)", Summarise(micros));
  Corvina_DestroyWaveformContext1(context);
  Corvina_DestroyPitchContext1(pitch_context);
  Corvina_DestroyPhoneContext1(phone_context);
  Corvina_DestroyPitchEstimator(estimator);
  Corvina_DestroyPhoneExtractor(extractor);
}

}  // namespace

int main(int argc, char** argv) {
  CorvinaWaveformGenerator* generator;
  if (argc > 1) {
    generator = Corvina_CreateWaveformGenerator();
    Corvina_ReadWaveformGeneratorParameters(generator, argv[1]);
  } else {
    generator = reinterpret_cast<CorvinaWaveformGenerator*>(synthetic::RandomWaveformModel(1).release());
  }
  auto* model = reinterpret_cast<WaveformGeneratorBlock*>(generator);
  std::printf("weights: %s\n", argc > 1 ? argv[1] : "random");
  BenchGenerator(model);
  if (argc > 3) BenchChain(generator, argv[2], argv[3]);
  Corvina_DestroyWaveformGenerator(generator);
  return 0;
}
