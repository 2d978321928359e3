// Per-frame cost of the pitch estimator, one thread: the whole call, its
// stages as the call runs them, and the front end's FFTs on their own (the
// three forward transforms in the lanes of one call, then the inverse).
//   cmake --build build/pitch --target bench_pitch && build/pitch/bench/bench_pitch
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "bench/speech_and_random_models.h"
#include "engine/aligned_block.h"
#include "engine/corvina.h"
#include "engine/fft.h"
#include "engine/kernel_set.h"
#include "pitch/pitch_decoder.h"
#include "pitch/pitch_network.h"
#include "pitch/spectral_front_end.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kHop = CORVINA_IN_HOP_LENGTH;
constexpr int kWarmUp = 200, kFrames = 3000;

struct Timings {
  const char* name;
  std::vector<double> us;
  void Report() {
    std::sort(us.begin(), us.end());
    const double median = us[us.size() / 2], p99 = us[us.size() * 99 / 100];
    std::printf("%-30s median %8.2f us   p99 %8.2f us\n", name, median, p99);
  }
};

template <typename F>
double Microseconds(F&& f) {
  const auto start = Clock::now();
  f();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

}  // namespace

int main() {
  using namespace corvina;
  auto* model = reinterpret_cast<CorvinaPitchEstimator*>(synthetic::RandomPitchModel(2).release());
  CorvinaPitchContext1* context = Corvina_CreatePitchContext1();
  const std::vector<float> signal = synthetic::SpeechLikeSignal(kWarmUp + kFrames, 1);
  std::int32_t pitch;
  float features[CORVINA_PITCH_FEATURES];

  Timings whole{"Corvina_EstimatePitch1", {}};
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const double us =
        Microseconds([&] { Corvina_EstimatePitch1(model, signal.data() + f * kHop, &pitch, features, context); });
    if (f >= kWarmUp) whole.us.push_back(us);
  }

  // The same frames stage by stage, on a second context.
  auto* stages = NewZeroedBlock<PitchContext>();
  const auto& block = *reinterpret_cast<const PitchEstimatorBlock*>(model);
  Timings front{"  front end (incl. FFTs)", {}}, network{"  network", {}}, decoder{"  decoder", {}};
  Timings ffts{"  FFTs of the front end alone", {}};
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const float* input = signal.data() + f * kHop;
    PitchFrontEndState* state = &stages->front;
    const double t_front = Microseconds([&] { SpectralFrontEndN(&input, &state, 1); });
    const double t_network = Microseconds([&] { ActiveKernels().pitch_network(block, &stages, 1); });
    const double t_decoder = Microseconds([&] { DecodePitch(stages->scores); });
    float a[562], b[562], c[562], r[560];
    const float* in[] = {stages->front.history, stages->front.history, stages->front.history};
    float* out[] = {a, b, c};
    const double t_fft = Microseconds([&] {
      ForwardRealFfts560(in, out, 3);
      InverseRealFft560(a, r, 0.0017857143f);
    });
    if (f >= kWarmUp) {
      front.us.push_back(t_front);
      network.us.push_back(t_network);
      decoder.us.push_back(t_decoder);
      ffts.us.push_back(t_fft);
    }
  }
  std::printf("%d frames after %d warm-up frames, one thread\n", kFrames, kWarmUp);
  whole.Report();
  front.Report();
  ffts.Report();
  network.Report();
  decoder.Report();
  std::printf("real-time factor (10 ms / median): %.0f\n", 10000.0 / whole.us[whole.us.size() / 2]);
  DeleteBlock(stages);
  Corvina_DestroyPitchContext1(context);
  Corvina_DestroyPitchEstimator(model);
  return 0;
}
