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
#include <vector>

#include "bench/speech_and_random_models.h"
#include "engine/corvina.h"
#include "phone/phone_layout.h"

using namespace corvina;

namespace {

constexpr int kWarmUp = 200;
constexpr int kFrames = 2000;

}  // namespace

int main(int argc, char** argv) {
  CorvinaPhoneExtractor* model;
  if (argc > 1) {
    model = Corvina_CreatePhoneExtractor();
    Corvina_ReadPhoneExtractorParameters(model, argv[1]);
  } else {
    model = reinterpret_cast<CorvinaPhoneExtractor*>(corvina::synthetic::RandomPhoneModel(1).release());
  }
  CorvinaPhoneContext1* context = Corvina_CreatePhoneContext1();

  const std::vector<float> signal = corvina::synthetic::SpeechLikeSignal(kWarmUp + kFrames, 2);

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
