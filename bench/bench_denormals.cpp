// Denormals: do they occur in the chain, do they change results, and what do
// they cost? The engine leaves the processor's MXCSR as the host set it
// (normally gradual underflow, no flush-to-zero): results are defined with
// denormals, and the table exponential yields them on purpose below -87.34.
//
// 1. The whole chain runs one stream twice from fresh contexts, once as is
//    and once with flush-to-zero and denormals-are-zero set, over speech-like
//    tones, exact silence and a -100 dBFS noise floor. Reports denormal
//    outputs, frames whose outputs differ between the two, and frame times.
// 2. The scalar sigmoid on arguments whose exponential is denormal against
//    arguments whose exponential is normal: nanoseconds per call.
//
//   corvina make-test-model /tmp/model &&
//   cmake --build build/<dir> --target bench_denormals &&
//   build/<dir>/bench/bench_denormals /tmp/model [frames]
#include <xmmintrin.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "engine/activations_scalar.h"
#include "engine/corvina.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kOut = CORVINA_PHONE_CHANNELS + CORVINA_PITCH_FEATURES + CORVINA_OUT_HOP_LENGTH;
constexpr unsigned kFlushBits = 0x8040;  // FTZ (bit 15) and DAZ (bit 6)

struct Run {
  std::vector<float> outputs;  // per frame: features, pitch features, samples
  std::vector<double> micros;
};

// Seconds of 2.5: a tone with noise, exact silence, a -100 dBFS noise floor.
void Input(int frame, float* x, std::mt19937& rng) {
  std::normal_distribution<float> noise(0.0f, 1.0f);
  const int part = (frame / 250) % 3;
  for (int i = 0; i < CORVINA_IN_HOP_LENGTH; ++i) {
    const float t = static_cast<float>(frame * CORVINA_IN_HOP_LENGTH + i) / CORVINA_IN_SAMPLE_RATE;
    x[i] = part == 0 ? 0.3f * std::sin(6.2831853f * (120.0f + 30.0f * std::sin(t)) * t) + 0.01f * noise(rng)
           : part == 1 ? 0.0f
                       : 1e-5f * noise(rng);
  }
}

Run RunChain(const std::string& dir, int frames, bool flush) {
  auto* phone = Corvina_CreatePhoneExtractor();
  auto* pitch = Corvina_CreatePitchEstimator();
  auto* waveform = Corvina_CreateWaveformGenerator();
  Corvina_ReadPhoneExtractorParameters(phone, (dir + "/phone_extractor.bin").c_str());
  Corvina_ReadPitchEstimatorParameters(pitch, (dir + "/pitch_estimator.bin").c_str());
  Corvina_ReadWaveformGeneratorParameters(waveform, (dir + "/waveform_generator.bin").c_str());
  std::vector<float> speaker(CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS);
  std::int32_t n = 0;
  if (Corvina_ReadNSpeakers((dir + "/speaker_embeddings.bin").c_str(), &n) == 0 && n > 0) {
    std::vector<float> all(static_cast<std::size_t>(n) * speaker.size());
    Corvina_ReadSpeakerEmbeddings((dir + "/speaker_embeddings.bin").c_str(), all.data());
    std::copy(all.begin(), all.begin() + speaker.size(), speaker.begin());
  }
  auto* pc = Corvina_CreatePhoneContext1();
  auto* tc = Corvina_CreatePitchContext1();
  auto* wc = Corvina_CreateWaveformContext1();

  const unsigned saved = _mm_getcsr();
  if (flush) _mm_setcsr(saved | kFlushBits);
  Run run{std::vector<float>(static_cast<std::size_t>(frames) * kOut), std::vector<double>(frames)};
  std::mt19937 rng(1);
  float x[CORVINA_IN_HOP_LENGTH];
  for (int f = 0; f < frames; ++f) {
    Input(f, x, rng);
    float* out = run.outputs.data() + static_cast<std::size_t>(f) * kOut;
    std::int32_t bin;
    const auto start = Clock::now();
    Corvina_ExtractPhone1(phone, x, out, pc);
    Corvina_EstimatePitch1(pitch, x, &bin, out + CORVINA_PHONE_CHANNELS, tc);
    Corvina_GenerateWaveform1(waveform, out, &bin, out + CORVINA_PHONE_CHANNELS, speaker.data(),
                              out + CORVINA_PHONE_CHANNELS + CORVINA_PITCH_FEATURES, wc);
    run.micros[f] = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  }
  _mm_setcsr(saved);
  Corvina_DestroyPhoneContext1(pc);
  Corvina_DestroyPitchContext1(tc);
  Corvina_DestroyWaveformContext1(wc);
  Corvina_DestroyPhoneExtractor(phone);
  Corvina_DestroyPitchEstimator(pitch);
  Corvina_DestroyWaveformGenerator(waveform);
  return run;
}

double Percentile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  return v[static_cast<std::size_t>(q * (v.size() - 1))];
}

// Nanoseconds per scalar sigmoid over arguments x in [low, low + 0.5); the
// exponential inside is taken of -x.
double SigmoidNanos(float low) {
  constexpr int kCalls = 4 << 20;
  std::vector<float> args(1024);
  for (std::size_t i = 0; i < args.size(); ++i) args[i] = low + 0.5f * static_cast<float>(i) / args.size();
  volatile float sink = 0.0f;
  float sum = 0.0f;
  const auto start = Clock::now();
  for (int k = 0; k < kCalls; ++k) sum += corvina::Sigmoid(args[k & 1023]);  // e^-x inside
  const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls;
  sink = sum;
  (void)sink;
  return ns;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s model_dir [frames]\n", argv[0]);
    return 2;
  }
  const int frames = argc > 2 ? std::atoi(argv[2]) : 3000;
  const Run plain = RunChain(argv[1], frames, false);
  const Run flushed = RunChain(argv[1], frames, true);

  long denormal = 0, differing_frames = 0;
  for (float v : plain.outputs) denormal += std::fpclassify(v) == FP_SUBNORMAL;
  for (int f = 0; f < frames; ++f)
    differing_frames += std::memcmp(&plain.outputs[static_cast<std::size_t>(f) * kOut],
                                    &flushed.outputs[static_cast<std::size_t>(f) * kOut], kOut * sizeof(float)) != 0;
  std::printf("chain, %d frames: %ld denormal outputs; %ld frames differ with flush-to-zero\n", frames, denormal,
              differing_frames);
  std::printf("frame time as is:          median %.1f us, p99 %.1f us\n", Percentile(plain.micros, 0.5),
              Percentile(plain.micros, 0.99));
  std::printf("frame time flush-to-zero:  median %.1f us, p99 %.1f us\n", Percentile(flushed.micros, 0.5),
              Percentile(flushed.micros, 0.99));
  std::printf("sigmoid, exponential normal   (e^-x, x in [79.5, 80.0)): %.2f ns\n", SigmoidNanos(79.5f));
  std::printf("sigmoid, exponential denormal (e^-x, x in [87.5, 88.0)): %.2f ns\n", SigmoidNanos(87.5f));
  return 0;
}
