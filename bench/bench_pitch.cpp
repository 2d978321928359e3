// Per-frame cost of the pitch estimator, one thread: the whole call, its
// stages, and the four FFTs of the front end on their own.
//   cmake --build build/pitch --target bench_pitch && build/pitch/bench/bench_pitch
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

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

// A voiced-like test signal: a few harmonics of a gliding 100..300 Hz tone plus noise.
std::vector<float> TestSignal(int frames) {
  std::mt19937 rng(1);
  std::normal_distribution<float> noise(0.0f, 0.01f);
  std::vector<float> x(static_cast<std::size_t>(frames) * kHop);
  double phase = 0.0;
  for (std::size_t n = 0; n < x.size(); ++n) {
    phase += 2.0 * 3.14159265358979 * (200.0 + 100.0 * std::sin(n * 1e-4)) / CORVINA_IN_SAMPLE_RATE;
    x[n] = static_cast<float>(0.3 * std::sin(phase) + 0.1 * std::sin(2 * phase) + 0.05 * std::sin(3 * phase)) +
           noise(rng);
  }
  return x;
}

void FillRandomWeights(CorvinaPitchEstimator* model) {
  std::mt19937 rng(2);
  auto* halves = reinterpret_cast<std::uint16_t*>(reinterpret_cast<std::uint8_t*>(model) + 64);
  for (std::size_t i = 0; i < CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES / 2; ++i)
    halves[i] = static_cast<std::uint16_t>((rng() % 2) << 15 | (7 + rng() % 6) << 10 | rng() % 1024);
}

struct Timings {
  const char* name;
  std::vector<double> us;
  void Report() {
    std::sort(us.begin(), us.end());
    const double median = us[us.size() / 2], p99 = us[us.size() * 99 / 100];
    std::printf("%-28s median %8.2f us   p99 %8.2f us\n", name, median, p99);
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
  CorvinaPitchEstimator* model = Corvina_CreatePitchEstimator();
  FillRandomWeights(model);
  CorvinaPitchContext1* context = Corvina_CreatePitchContext1();
  const std::vector<float> signal = TestSignal(kWarmUp + kFrames);
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
  Timings ffts{"  4 FFTs of 560 alone", {}};
  for (int f = 0; f < kWarmUp + kFrames; ++f) {
    const double t_front = Microseconds([&] { SpectralFrontEnd(signal.data() + f * kHop, &stages->front); });
    const double t_network = Microseconds([&] { ActiveKernels().pitch_network(block, &stages, 1); });
    const double t_decoder = Microseconds([&] { DecodePitch(stages->scores); });
    float a[562], b[562], r[560];
    const double t_fft = Microseconds([&] {
      ForwardRealFft560(stages->front.history, a);
      ForwardRealFft560(stages->front.history, b);
      ForwardRealFft560(stages->front.history, b);
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
