// Whole-chain speed for one stream on one thread: the phone extractor, the
// pitch estimator and the waveform generator, frame after frame through the C
// interface, with every kernel set this processor supports timed in the same
// run (the sets take turns frame by frame, so a change in machine load hits
// them alike). Per model and for the whole frame: median and 99th percentile of
// the microseconds per 10 ms frame and the real-time factor 10 ms / median;
// the AVX-512 set's speed-up over the AVX2 set; the
// memory one stream (its three contexts) and one model set (the three model
// blocks) take; and two floors measured alongside (one pass over the weights,
// the frame's library tanh calls).
//   cmake --build build/perf --target bench_chain &&
//   build/perf/bench/bench_chain [--frames N] [--set NAME] [--json PATH] [phone.bin pitch.bin generator.bin]
// Without files the weights are small random halves (the README shows how to
// write well-conditioned files with the test references).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_common.h"
#include "engine/corvina.h"
#include "engine/kernel_set.h"
#include "engine/kernels.h"
#include "phone/phone_layout.h"
#include "pitch/pitch_layout.h"
#include "waveform/waveform_layout.h"

using namespace corvina;
using namespace corvina::bench;

namespace {

constexpr int kWarmUp = 200;
constexpr int kParts = 4;  // phone, pitch, waveform, whole frame
const char* const kPartNames[kParts] = {"phone", "pitch", "waveform", "chain"};

struct Options {
  int frames = 2000;  // timed frames per kernel set
  const char* json = nullptr;
  const char* only = nullptr;  // --set NAME: time this kernel set alone (for instruction counting)
  const char* files[3] = {nullptr, nullptr, nullptr};  // phone, pitch, generator
};

struct Chain {
  const CorvinaPhoneExtractor* phone_model;
  const CorvinaPitchEstimator* pitch_model;
  const CorvinaWaveformGenerator* waveform_model;
};

// One stream's contexts and the frames it has timed.
struct Stream {
  CorvinaPhoneContext1* phone = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* waveform = Corvina_CreateWaveformContext1();
  std::vector<double> micros[kParts];
  int next_frame = 0;

  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    Corvina_DestroyWaveformContext1(waveform);
    Corvina_DestroyPitchContext1(pitch);
    Corvina_DestroyPhoneContext1(phone);
  }

  void Run(const Chain& chain, const std::vector<float>& signal, const float* speaker, int frames, bool timed) {
    const int signal_frames = static_cast<int>(signal.size() / CORVINA_IN_HOP_LENGTH);
    float features[CORVINA_PHONE_CHANNELS], pitch_features[CORVINA_PITCH_FEATURES], output[CORVINA_OUT_HOP_LENGTH];
    std::int32_t bin;
    for (int f = 0; f < frames; ++f) {
      const float* x = signal.data() + static_cast<std::size_t>(next_frame++ % signal_frames) * CORVINA_IN_HOP_LENGTH;
      const Clock::time_point t0 = Clock::now();
      Corvina_ExtractPhone1(chain.phone_model, x, features, phone);
      const Clock::time_point t1 = Clock::now();
      Corvina_EstimatePitch1(chain.pitch_model, x, &bin, pitch_features, pitch);
      const Clock::time_point t2 = Clock::now();
      Corvina_GenerateWaveform1(chain.waveform_model, features, &bin, pitch_features, speaker, output, waveform);
      const Clock::time_point t3 = Clock::now();
      if (!timed) continue;
      const Clock::time_point t[] = {t0, t1, t2, t3};
      for (int p = 0; p < 3; ++p) micros[p].push_back(std::chrono::duration<double, std::micro>(t[p + 1] - t[p]).count());
      micros[3].push_back(std::chrono::duration<double, std::micro>(t3 - t0).count());
    }
  }
};

// Costs measured on the spot: one pass over the three model blocks (every
// half read and widened once, as a frame does; each block taken as a
// 256-input matrix of the avx2 set's product), the floor of one stream;
// and the frame's 18176 GELU values: the library tanh alone per value, and
// the fast sets' whole GELU with the vector build of it.
struct Floors {
  double weights_us, gelu_library_us, gelu_vector_us;
};

Floors MeasureFloors(const Chain& chain) {
  constexpr int kRepeats = 60, kTanhCalls = 18176;
  const std::pair<const void*, std::size_t> blocks[] = {
      {chain.phone_model, sizeof(PhoneExtractorBlock)},
      {chain.pitch_model, sizeof(PitchEstimatorBlock)},
      {chain.waveform_model, sizeof(WaveformGeneratorBlock)}};
  constexpr int kInputs = 256;
  constexpr std::size_t kPanelBytes = kInputs * kPanel * sizeof(f16);
  const std::vector<float> zeros(kInputs, 0.0f);
  std::vector<float> sink(sizeof(WaveformGeneratorBlock) / kPanelBytes * kPanel);
  std::vector<double> weights, library, vector;
  std::vector<float> values(kTanhCalls), work(kTanhCalls);
  std::mt19937 rng(5);
  std::normal_distribution<float> normal(0.0f, 1.5f);
  for (float& v : values) v = normal(rng);
  volatile float keep = 0.0f;
  for (int r = 0; r < kRepeats; ++r) {
    Clock::time_point t0 = Clock::now();
    for (const auto& block : blocks)
      avx2::PanelAccumulate(static_cast<const f16*>(block.first), zeros.data(), sink.data(),
                                 static_cast<int>(block.second / kPanelBytes * kPanel), kInputs);
    Clock::time_point t1 = Clock::now();
    work = values;
    Clock::time_point t2 = Clock::now();
    for (float& v : work) v = std::tanh(v);  // the tanh calls alone
    Clock::time_point t3 = Clock::now();
    keep = keep + work[0];
    work = values;
    Clock::time_point t4 = Clock::now();
    avx2::GeluInPlace(work.data(), kTanhCalls);
    Clock::time_point t5 = Clock::now();
    keep = keep + work[0] + sink[0];
    weights.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    library.push_back(std::chrono::duration<double, std::micro>(t3 - t2).count());
    vector.push_back(std::chrono::duration<double, std::micro>(t5 - t4).count());
  }
  return {Summarise(weights).median, Summarise(library).median, Summarise(vector).median};
}

bool ParseOptions(int argc, char** argv, Options* options) {
  int file = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--frames") == 0 && i + 1 < argc) {
      options->frames = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
      options->json = argv[++i];
    } else if (std::strcmp(argv[i], "--set") == 0 && i + 1 < argc) {
      options->only = argv[++i];
    } else if (argv[i][0] != '-' && file < 3) {
      options->files[file++] = argv[i];
    } else {
      return false;
    }
  }
  return (file == 0 || file == 3) && options->frames >= 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: %s [--frames N] [--set avx2|avx512] [--json PATH] [phone.bin pitch.bin generator.bin]\n",
                 argv[0]);
    return 2;
  }
  const Models models(options.files);
  const Chain chain{models.phone, models.pitch, models.waveform};
  const std::vector<float> signal = Signal(1000);
  const std::vector<float> speaker = Speaker();

  std::vector<KernelSet> sets;
  for (int i = 0; i < kKernelSets; ++i)
    if (KernelSetSupported(static_cast<KernelSet>(i)) &&
        (options.only == nullptr || std::strcmp(options.only, KernelSetName(static_cast<KernelSet>(i))) == 0))
      sets.push_back(static_cast<KernelSet>(i));
  if (sets.empty()) {
    std::fprintf(stderr, "kernel set %s is not supported here\n", options.only);
    return 2;
  }
  const KernelSet active = ActiveKernelSet();
  const double load_before = LoadAverage();

  // Frame by frame in turn, so every set meets the same machine load and the
  // same cache state (the other sets' frames have just passed through).
  std::vector<Stream> streams(sets.size());
  for (int frame = 0; frame < kWarmUp + options.frames; ++frame)
    for (std::size_t s = 0; s < sets.size(); ++s) {
      SelectKernelSet(sets[s]);
      streams[s].Run(chain, signal, speaker.data(), 1, frame >= kWarmUp);
    }
  SelectKernelSet(active);
  const Floors floors = MeasureFloors(chain);
  const double load_after = LoadAverage();

  const std::size_t stream_bytes = sizeof(PhoneContext) + sizeof(PitchContext) + sizeof(WaveformContext);
  const std::size_t model_bytes = sizeof(PhoneExtractorBlock) + sizeof(PitchEstimatorBlock) +
                                  sizeof(WaveformGeneratorBlock);
  const std::string processor = ProcessorName();
  const int timed = options.frames;

  std::printf("corvina chain, one stream, one thread: %d timed frames per kernel set after %d warm-up frames, the "
              "sets taking turns frame by frame\n", timed, kWarmUp);
  std::printf("processor: %s; active kernel set: %s\n", processor.c_str(), KernelSetName(active));
  std::printf("weights: %s; load average %.2f before, %.2f after\n\n", models.weights(), load_before,
              load_after);
  std::printf("| kernel set | model | median us | p99 us | x real time |\n|---|---|---:|---:|---:|\n");
  std::vector<Stats> stats(sets.size() * kParts);
  for (std::size_t s = 0; s < sets.size(); ++s)
    for (int p = 0; p < kParts; ++p) {
      const Stats st = stats[s * kParts + p] = Summarise(streams[s].micros[p]);
      std::printf("| %s | %s | %.1f | %.1f | %.1f |\n", KernelSetName(sets[s]), kPartNames[p], st.median, st.p99,
                  10000.0 / st.median);
    }
  if (sets.size() > 1) std::printf("\nchain speed-up over %s (median, p99):", KernelSetName(sets[0]));
  for (std::size_t s = 1; s < sets.size(); ++s)
    std::printf(" %s %.2fx, %.2fx;", KernelSetName(sets[s]), stats[3].median / stats[s * kParts + 3].median,
                stats[3].p99 / stats[s * kParts + 3].p99);
  std::printf("\nmemory per stream (three contexts): %zu + %zu + %zu = %zu bytes (%.1f KiB)\n", sizeof(PhoneContext),
              sizeof(PitchContext), sizeof(WaveformContext), stream_bytes, stream_bytes / 1024.0);
  std::printf("memory per model set (three model blocks): %zu + %zu + %zu = %zu bytes (%.1f MiB)\n",
              sizeof(PhoneExtractorBlock), sizeof(PitchEstimatorBlock), sizeof(WaveformGeneratorBlock), model_bytes,
              model_bytes / 1048576.0);
  std::printf("one pass over the model blocks %.1f us; 18176 values: library tanh %.1f us, GELU with the vector tanh %.1f us"
              " (%s; medians)\n",
              floors.weights_us, floors.gelu_library_us, floors.gelu_vector_us,
              VectorTanhExact() ? "the fast sets use the vector tanh" : "the library differs: the fast sets call it");

  if (options.json != nullptr) {
    std::FILE* out = OpenJson(options.json);
    if (out == nullptr) return 1;
    std::fprintf(out, "{\n  \"processor\": \"%s\",\n  \"active_kernel_set\": \"%s\",\n", processor.c_str(),
                 KernelSetName(active));
    std::fprintf(out, "  \"weights\": \"%s\",\n  \"timed_frames\": %d,\n  \"load_average\": [%.2f, %.2f],\n",
                 models.weights(), timed, load_before, load_after);
    std::fprintf(out, "  \"kernel_sets\": {");
    for (std::size_t s = 0; s < sets.size(); ++s) {
      std::fprintf(out, "%s\n    \"%s\": {", s ? "," : "", KernelSetName(sets[s]));
      for (int p = 0; p < kParts; ++p) {
        const Stats& st = stats[s * kParts + p];
        std::fprintf(out, "%s\n      \"%s\": {\"median_us\": %.2f, \"p99_us\": %.2f, \"real_time_factor\": %.2f}",
                     p ? "," : "", kPartNames[p], st.median, st.p99, 10000.0 / st.median);
      }
      if (s > 0)
        std::fprintf(out, ",\n      \"chain_speedup_over_first\": {\"median\": %.3f, \"p99\": %.3f}",
                     stats[3].median / stats[s * kParts + 3].median, stats[3].p99 / stats[s * kParts + 3].p99);
      std::fprintf(out, "\n    }");
    }
    std::fprintf(out, "\n  },\n  \"costs_us\": {\"weights_pass\": %.2f, \"gelu_library_tanh\": %.2f, "
                      "\"gelu_vector_tanh\": %.2f},",
                 floors.weights_us, floors.gelu_library_us, floors.gelu_vector_us);
    std::fprintf(out, "\n  \"memory_bytes\": {\"per_stream\": %zu, \"phone_context\": %zu, \"pitch_context\": %zu, "
                      "\"waveform_context\": %zu, \"per_model_set\": %zu, \"phone_model\": %zu, \"pitch_model\": %zu, "
                      "\"waveform_model\": %zu}\n}\n",
                 stream_bytes, sizeof(PhoneContext), sizeof(PitchContext), sizeof(WaveformContext), model_bytes,
                 sizeof(PhoneExtractorBlock), sizeof(PitchEstimatorBlock), sizeof(WaveformGeneratorBlock));
    std::fclose(out);
  }
  return 0;
}
