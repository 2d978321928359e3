// One batched matrix sweep at a time, against the pure multiply-add loop
// timed just before it (bench/floors.h): what share of the loop's rate each
// layer shape of a batch of 16 streams reaches, with its weights fresh from
// the third-level cache as in a frame (every call reads another copy of
// them from a 64 MB pool) or warm in the second-level cache (--warm). The
// ratio of each call to the loop beside it is taken, so the clock's drift
// between runs cancels. AVX-512 only: the sweeps it times are that set's.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/bench_common.h"
#include "bench/floors.h"

namespace corvina::bench {
namespace {

struct Shape {
  const char* name;
  int steps, taps, inputs, outputs;
};

// The batch of 16's layers: the stacks' widest convolutions at their steps,
// the phone extractor's front convolution, and products for 16 streams.
constexpr Shape kShapes[] = {
    {"stage-1 stack convolution, 11 taps", 80, 11, 128, 128},
    {"stage-2 stack convolution, 11 taps", 240, 11, 64, 64},
    {"front convolution, 3 taps", 64, 3, 128, 256},
    {"dense 256 x 256", 16, 1, 256, 256},
    {"residual expansion 768 x 256", 16, 1, 256, 768},
    {"residual projection 256 x 768", 16, 1, 768, 256},
};

void Run(const Shape& shape, int calls, bool warm) {
  const std::size_t size = static_cast<std::size_t>(shape.taps) * shape.inputs * shape.outputs;
  const int copies = warm ? 1 : static_cast<int>((64u << 20) / (size * sizeof(f16))) + 1;
  std::vector<f16> weights(size * copies);
  for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = static_cast<f16>(0x3000 + i % 7);  // small values
  std::vector<std::vector<float>> inputs(static_cast<std::size_t>(shape.steps) * shape.taps,
                                         std::vector<float>(shape.inputs, 0.01f));
  std::vector<std::vector<float>> outputs(shape.steps, std::vector<float>(shape.outputs, 0.0f));
  std::vector<const float*> rows;
  std::vector<float*> y;
  for (const auto& row : inputs) rows.push_back(row.data());
  for (auto& out : outputs) y.push_back(out.data());
  const double multiply_adds = static_cast<double>(size) * shape.steps;
  std::vector<double> micros, shares;
  volatile float keep = 1.0f;
  for (int call = 0; call < calls; ++call) {
    constexpr long kLoopIterations = 1 << 12;  // a million multiply-adds
    const Clock::time_point t0 = Clock::now();
    keep = FmaLoop16(kLoopIterations, keep);
    const double loop_rate = kLoopIterations * 256.0 / Micros(Clock::now() - t0);
    const Clock::time_point t1 = Clock::now();
    avx512::MatrixSweepN(weights.data() + size * (call % copies), static_cast<std::size_t>(shape.inputs) * shape.outputs,
                         rows.data(), shape.taps, shape.inputs, y.data(), shape.steps, shape.outputs);
    micros.push_back(Micros(Clock::now() - t1));
    shares.push_back(multiply_adds / micros.back() / loop_rate);
  }
  const Stats time = Summarise(micros), share = Summarise(shares);
  std::printf("| %s | %d | %.2f | %.1f | %.1f | %.2f |\n", shape.name, shape.steps, multiply_adds * 1e-6, time.median,
              multiply_adds / time.median * 1e-3, share.median);
}

}  // namespace
}  // namespace corvina::bench

int main(int argc, char** argv) {
  using namespace corvina;
  int calls = 400;
  bool warm = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--calls") == 0 && i + 1 < argc && std::atoi(argv[i + 1]) >= 1) {
      calls = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--warm") == 0) {
      warm = true;
    } else {
      std::fprintf(stderr, "usage: %s [--calls N] [--warm]\n", argv[0]);
      return 2;
    }
  }
  if (!KernelSetSupported(KernelSet::kAvx512)) {
    std::fprintf(stderr, "%s: the sweeps timed here are the avx512 set's; this processor has no AVX-512\n", argv[0]);
    return 1;
  }
  std::printf("batched sweeps of the avx512 set, %d calls each, weights %s; share: multiply-adds a second over "
              "the 512-bit loop's, timed beside each call (medians)\n\n",
              calls, warm ? "warm in cache" : "fresh from the third-level cache");
  std::printf("| layer | steps | M multiply-adds | us | G multiply-adds/s | share of the loop |\n|---|---:|---:|---:|---:|---:|\n");
  for (const bench::Shape& shape : bench::kShapes) bench::Run(shape, calls, warm);
  return 0;
}
