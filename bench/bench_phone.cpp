// Phone extractor speed: microseconds per 10 ms frame of Corvina_ExtractPhone1
// (median and 99th percentile over 2000 frames after 200 warm-up frames, one
// thread) and the real-time factor 10 ms / median.
//   cmake --build build/phone --target bench_phone && build/phone/bench/bench_phone [parameters.bin]
// Without a file the weights are small uniform random values.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "engine/corvina.h"
#include "phone/phone_layout.h"

using namespace corvina;

namespace {

constexpr int kWarmUp = 200;
constexpr int kFrames = 2000;

// Halves of magnitude 2^-9 to 2^-4 (exponent 6..10), random sign and mantissa.
void FillRandom(CorvinaPhoneExtractor* model) {
  auto* halves = reinterpret_cast<f16*>(model);
  std::mt19937 rng(1);
  std::uniform_int_distribution<int> exponent(6, 10), mantissa(0, 1023), sign(0, 1);
  for (std::size_t i = 0; i < sizeof(PhoneExtractorBlock) / sizeof(f16); ++i)
    halves[i] = static_cast<f16>((sign(rng) << 15) | (exponent(rng) << 10) | mantissa(rng));
}

}  // namespace

int main(int argc, char** argv) {
  CorvinaPhoneExtractor* model = Corvina_CreatePhoneExtractor();
  if (argc > 1) {
    Corvina_ReadPhoneExtractorParameters(model, argv[1]);
  } else {
    FillRandom(model);
  }
  CorvinaPhoneContext1* context = Corvina_CreatePhoneContext1();

  std::mt19937 rng(2);
  std::normal_distribution<float> noise(0.0f, 0.02f);
  std::vector<float> signal(static_cast<std::size_t>(kWarmUp + kFrames) * CORVINA_IN_HOP_LENGTH);
  for (std::size_t i = 0; i < signal.size(); ++i)
    signal[i] = 0.3f * std::sin(2.0f * 3.14159265f * 150.0f * static_cast<float>(i) / 16000.0f) + noise(rng);

  float output[CORVINA_PHONE_CHANNELS];
  std::vector<double> micros;
  micros.reserve(kFrames);
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const auto start = std::chrono::steady_clock::now();
    Corvina_ExtractPhone1(model, signal.data() + static_cast<std::size_t>(f) * CORVINA_IN_HOP_LENGTH, output, context);
    const auto stop = std::chrono::steady_clock::now();
    if (f >= kWarmUp) micros.push_back(std::chrono::duration<double, std::micro>(stop - start).count());
  }
  std::sort(micros.begin(), micros.end());
  const double median = micros[micros.size() / 2];
  const double p99 = micros[micros.size() * 99 / 100];
  std::printf("Corvina_ExtractPhone1: median %.1f us/frame, p99 %.1f us/frame, real-time factor %.1f (%d frames, %s)\n",
              median, p99, 10000.0 / median, kFrames, argc > 1 ? argv[1] : "random weights");
  std::printf("(output[0] = %g)\n", output[0]);
  Corvina_DestroyPhoneContext1(context);
  Corvina_DestroyPhoneExtractor(model);
  return 0;
}
