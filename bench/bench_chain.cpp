// Whole-chain speed on one thread, and how far each network stands from its
// floors. Every kernel set this processor supports runs in turn, one set at a
// time: the phone extractor, the pitch estimator and the waveform generator,
// frame after frame through the C interface, for one stream (the ...1 calls)
// and for a batch of streams (the ...N calls). Measured alongside:
//   the weight-pass floor: one pass over each model block with the running
//   set's matrix product, every tenth frame of the one-stream run;
//   the multiply-add floor: a frame's multiply-adds (network_costs.h) at the
//   peak rate of a pure multiply-add loop on one core (floors.h).
// Per set and model: median and 99th percentile of the microseconds per
// 10 ms frame and the real-time factor; per network: its weight bytes and
// multiply-adds, the one-stream median and the batch's time per stream-frame,
// each as a ratio to the floors. Also the memory of one stream and of one
// model set, and the cost of the frame's GELUs.
//   cmake --build build/perf --target bench_chain &&
//   build/perf/bench/bench_chain [--frames N] [--batch B] [--set NAME] [--json PATH]
//                                [phone.bin pitch.bin generator.bin]
// Without files the weights are the shared random models
// (speech_and_random_models.h); the README shows how to write files.
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
#include "bench/floors.h"
#include "bench/network_costs.h"
#include "bench/stream_group.h"
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
constexpr int kPassEvery = 10;  // one weight pass per this many one-stream frames
constexpr int kBatchWarmUp = 20;
constexpr int kParts = kNetworks + 1;  // phone, pitch, waveform, whole frame
const char* const kPartNames[kParts] = {"phone", "pitch", "waveform", "chain"};

struct Options {
  int frames = 2000;  // timed one-stream frames per kernel set
  int batch = kMaxBatch;  // streams of the batched run; 0 leaves it out
  const char* json = nullptr;
  const char* only = nullptr;  // --set NAME: time this kernel set alone
  const char* files[3] = {nullptr, nullptr, nullptr};  // phone, pitch, generator
};

// One stream's contexts, run through the ...1 calls.
struct Stream {
  CorvinaPhoneContext1* phone = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* waveform = Corvina_CreateWaveformContext1();
  int next_frame = 0;

  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    Corvina_DestroyWaveformContext1(waveform);
    Corvina_DestroyPitchContext1(pitch);
    Corvina_DestroyPhoneContext1(phone);
  }

  // One frame; marks receive the clock before and after each model.
  void Frame(const Models& models, const std::vector<float>& signal, const float* speaker, Clock::time_point* marks) {
    const int signal_frames = static_cast<int>(signal.size() / CORVINA_IN_HOP_LENGTH);
    float features[CORVINA_PHONE_CHANNELS], pitch_features[CORVINA_PITCH_FEATURES], output[CORVINA_OUT_HOP_LENGTH];
    std::int32_t bin;
    const float* x = signal.data() + static_cast<std::size_t>(next_frame++ % signal_frames) * CORVINA_IN_HOP_LENGTH;
    marks[0] = Clock::now();
    Corvina_ExtractPhone1(models.phone, x, features, phone);
    marks[1] = Clock::now();
    Corvina_EstimatePitch1(models.pitch, x, &bin, pitch_features, pitch);
    marks[2] = Clock::now();
    Corvina_GenerateWaveform1(models.waveform, features, &bin, pitch_features, speaker, output, waveform);
    marks[3] = Clock::now();
  }
};

// Microseconds per part from the four marks of a frame, divided by `streams`.
void Record(const Clock::time_point* marks, int streams, std::vector<double>* micros) {
  for (int p = 0; p < kNetworks; ++p) micros[p].push_back(Micros(marks[p + 1] - marks[p]) / streams);
  micros[kNetworks].push_back(Micros(marks[kNetworks] - marks[0]) / streams);
}

// What one kernel set measured, per part: one-stream frames, the batch's
// time per stream-frame, and the weight pass over the part's blocks.
struct SetRun {
  KernelSet set;
  Stats single[kParts], batched[kParts];
  double pass_us[kParts];  // medians
};

SetRun RunSet(KernelSet set, const Models& models, const std::vector<float>& signal, const float* speaker,
              const Options& options, WeightPass* pass) {
  SelectKernelSet(set);
  SetRun run{set, {}, {}, {}};
  const std::pair<const void*, std::size_t> blocks[kNetworks] = {
      {models.phone, kNetworkCosts[0].weight_bytes},
      {models.pitch, kNetworkCosts[1].weight_bytes},
      {models.waveform, kNetworkCosts[2].weight_bytes}};
  std::vector<double> single[kParts], batched[kParts], passes[kParts];
  Clock::time_point marks[kParts];
  Stream stream;
  for (int frame = 0; frame < kWarmUp + options.frames; ++frame) {
    stream.Frame(models, signal, speaker, marks);
    if (frame < kWarmUp) continue;
    Record(marks, 1, single);
    if (frame % kPassEvery != 0) continue;
    double chain = 0.0;
    for (int b = 0; b < kNetworks; ++b) {
      passes[b].push_back(pass->Micros(set, blocks[b].first, blocks[b].second));
      chain += passes[b].back();
    }
    passes[kNetworks].push_back(chain);
  }
  if (options.batch > 0) {
    Group group(models, signal, speaker, 0, options.batch);
    const int batch_frames = std::max(50, options.frames / options.batch);
    for (int frame = 0; frame < kBatchWarmUp + batch_frames; ++frame) {
      group.Frame(Mode::kBatch, frame, marks);
      if (frame >= kBatchWarmUp) Record(marks, options.batch, batched);
    }
  }
  for (int p = 0; p < kParts; ++p) {
    run.single[p] = Summarise(single[p]);
    if (options.batch > 0) run.batched[p] = Summarise(batched[p]);
    run.pass_us[p] = Summarise(passes[p]).median;
  }
  return run;
}

NetworkCost PartCost(int part) { return part < kNetworks ? kNetworkCosts[part] : ChainCost(); }

// The frame's 18176 GELU values: the library tanh alone per value, and the
// vector sets' whole GELU with the vector build of it (medians of 60).
struct GeluCosts {
  double library_tanh_us, vector_gelu_us;
};

GeluCosts MeasureGelu() {
  constexpr int kRepeats = 60, kValues = 18176;
  std::vector<float> values(kValues), work(kValues);
  std::mt19937 rng(5);
  std::normal_distribution<float> normal(0.0f, 1.5f);
  for (float& v : values) v = normal(rng);
  std::vector<double> library, vector;
  volatile float keep = 0.0f;
  for (int r = 0; r < kRepeats; ++r) {
    work = values;
    Clock::time_point t0 = Clock::now();
    for (float& v : work) v = std::tanh(v);
    library.push_back(Micros(Clock::now() - t0));
    keep = keep + work[0];
    work = values;
    t0 = Clock::now();
    avx2::GeluInPlace(work.data(), kValues);
    vector.push_back(Micros(Clock::now() - t0));
    keep = keep + work[0];
  }
  return {Summarise(library).median, Summarise(vector).median};
}

void PrintTimes(const std::vector<SetRun>& runs) {
  std::printf("| kernel set | model | median us | p99 us | x real time |\n|---|---|---:|---:|---:|\n");
  for (const SetRun& run : runs)
    for (int p = 0; p < kParts; ++p)
      std::printf("| %s | %s | %.1f | %.1f | %.1f |\n", KernelSetName(run.set), kPartNames[p], run.single[p].median,
                  run.single[p].p99, 10000.0 / run.single[p].median);
}

void PrintFloors(const std::vector<SetRun>& runs, const FmaPeak& peak, int batch) {
  std::printf("\n| kernel set | network | weights MB | M multiply-adds | weight pass us | multiply-add floor us | "
              "one stream us | x weight pass | x multiply-add floor | batch of %d: us per stream-frame | "
              "x multiply-add floor | batch call / weight pass |\n"
              "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n", batch);
  for (const SetRun& run : runs)
    for (int p = 0; p < kParts; ++p) {
      const NetworkCost cost = PartCost(p);
      const double mac_us = peak.Micros(cost.multiply_adds), single = run.single[p].median;
      std::printf("| %s | %s | %.2f | %.2f | %.1f | %.1f | %.1f | %.2f | %.2f |", KernelSetName(run.set),
                  kPartNames[p], cost.weight_bytes * 1e-6, cost.multiply_adds * 1e-6, run.pass_us[p], mac_us,
                  single, single / run.pass_us[p], single / mac_us);
      if (batch > 0) {
        const double per_stream = run.batched[p].median;
        std::printf(" %.1f | %.2f | %.2f |\n", per_stream, per_stream / mac_us, per_stream * batch / run.pass_us[p]);
      } else {
        std::printf(" | | |\n");
      }
    }
}

void WriteStats(std::FILE* out, const char* name, const Stats& s) {
  std::fprintf(out, "\"%s\": {\"median_us\": %.2f, \"p99_us\": %.2f}", name, s.median, s.p99);
}

bool WriteJson(const Options& options, const Models& models, const std::vector<SetRun>& runs, const FmaPeak& peak,
               const GeluCosts& gelu, const double load[2]) {
  std::FILE* out = OpenJson(options.json);
  if (out == nullptr) return false;
  std::fprintf(out, "{\n  \"processor\": \"%s\",\n  \"active_kernel_set\": \"%s\",\n", ProcessorName().c_str(),
               KernelSetName(ActiveKernelSet()));
  std::fprintf(out, "  \"weights\": \"%s\",\n  \"timed_frames\": %d,\n  \"batch_streams\": %d,\n", models.weights(),
               options.frames, options.batch);
  std::fprintf(out, "  \"load_average\": [%.2f, %.2f],\n", load[0], load[1]);
  std::fprintf(out, "  \"multiply_add_floor\": {\"width\": \"%s\", \"multiply_adds_per_s\": %.4g},\n", peak.width,
               peak.multiply_adds_per_s);
  std::fprintf(out, "  \"kernel_sets\": {");
  for (std::size_t r = 0; r < runs.size(); ++r) {
    const SetRun& run = runs[r];
    std::fprintf(out, "%s\n    \"%s\": {", r ? "," : "", KernelSetName(run.set));
    for (int p = 0; p < kParts; ++p) {
      const NetworkCost cost = PartCost(p);
      const double mac_us = peak.Micros(cost.multiply_adds);
      std::fprintf(out, "%s\n      \"%s\": {\"weight_bytes\": %zu, \"multiply_adds\": %zu, ", p ? "," : "",
                   kPartNames[p], cost.weight_bytes, cost.multiply_adds);
      std::fprintf(out, "\"weight_pass_us\": %.2f, \"multiply_add_floor_us\": %.2f, ", run.pass_us[p], mac_us);
      WriteStats(out, "one_stream", run.single[p]);
      std::fprintf(out, ", \"one_stream_to_weight_pass\": %.3f, \"one_stream_to_multiply_add_floor\": %.3f",
                   run.single[p].median / run.pass_us[p], run.single[p].median / mac_us);
      if (options.batch > 0) {
        std::fprintf(out, ", ");
        WriteStats(out, "batch_per_stream_frame", run.batched[p]);
        std::fprintf(out, ", \"batch_to_multiply_add_floor\": %.3f, \"batch_call_to_weight_pass\": %.3f",
                     run.batched[p].median / mac_us, run.batched[p].median * options.batch / run.pass_us[p]);
      }
      std::fprintf(out, "}");
    }
    std::fprintf(out, "\n    }");
  }
  std::fprintf(out, "\n  },\n  \"gelu_us\": {\"library_tanh\": %.2f, \"vector_gelu\": %.2f},", gelu.library_tanh_us,
               gelu.vector_gelu_us);
  std::fprintf(out, "\n  \"memory_bytes\": {\"per_stream\": %zu, \"phone_context\": %zu, \"pitch_context\": %zu, "
                    "\"waveform_context\": %zu, \"per_model_set\": %zu}\n}\n",
               sizeof(PhoneContext) + sizeof(PitchContext) + sizeof(WaveformContext), sizeof(PhoneContext),
               sizeof(PitchContext), sizeof(WaveformContext), ChainCost().weight_bytes);
  std::fclose(out);
  return true;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  int file = 0;
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (std::strcmp(argv[i], "--frames") == 0 && has_value) {
      options->frames = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--batch") == 0 && has_value) {
      options->batch = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--json") == 0 && has_value) {
      options->json = argv[++i];
    } else if (std::strcmp(argv[i], "--set") == 0 && has_value) {
      options->only = argv[++i];
    } else if (argv[i][0] != '-' && file < 3) {
      options->files[file++] = argv[i];
    } else {
      return false;
    }
  }
  return (file == 0 || file == 3) && options->frames >= kPassEvery && options->batch >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: %s [--frames N] [--batch B] [--set avx2|avx512] [--json PATH] "
                 "[phone.bin pitch.bin generator.bin]\n(N >= %d, B >= 0)\n",
                 argv[0], kPassEvery);
    return 2;
  }
  const Models models(options.files);
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
  double load[2] = {LoadAverage(), 0.0};
  const FmaPeak peak = MeasureFmaPeak();
  WeightPass pass(kNetworkCosts[2].weight_bytes);
  std::vector<SetRun> runs;
  for (KernelSet set : sets) runs.push_back(RunSet(set, models, signal, speaker.data(), options, &pass));
  SelectKernelSet(active);
  const GeluCosts gelu = MeasureGelu();
  load[1] = LoadAverage();

  std::printf("corvina chain on one thread, the kernel sets one at a time: %d one-stream frames per set after %d "
              "warm-up frames, then a batch of %d streams\n", options.frames, kWarmUp, options.batch);
  std::printf("processor: %s; active kernel set: %s\n", ProcessorName().c_str(), KernelSetName(active));
  std::printf("weights: %s; load average %.2f before, %.2f after\n", models.weights(), load[0], load[1]);
  std::printf("multiply-add floor: a %s multiply-add loop ran %.1f G multiply-adds a second on one core\n\n",
              peak.width, peak.multiply_adds_per_s * 1e-9);
  PrintTimes(runs);
  PrintFloors(runs, peak, options.batch);
  const std::size_t stream_bytes = sizeof(PhoneContext) + sizeof(PitchContext) + sizeof(WaveformContext);
  std::printf("\nmemory per stream (three contexts): %zu + %zu + %zu = %zu bytes (%.1f KiB)\n", sizeof(PhoneContext),
              sizeof(PitchContext), sizeof(WaveformContext), stream_bytes, stream_bytes / 1024.0);
  std::printf("memory per model set (three model blocks): %zu + %zu + %zu = %zu bytes (%.1f MiB)\n",
              kNetworkCosts[0].weight_bytes, kNetworkCosts[1].weight_bytes, kNetworkCosts[2].weight_bytes,
              ChainCost().weight_bytes, ChainCost().weight_bytes / 1048576.0);
  std::printf("18176 GELU values: library tanh %.1f us, GELU with the vector tanh %.1f us (%s; medians)\n",
              gelu.library_tanh_us, gelu.vector_gelu_us,
              VectorTanhExact() ? "the vector sets use the vector tanh" : "the library differs: the vector sets call it");
  if (options.json != nullptr && !WriteJson(options, models, runs, peak, gelu, load)) return 1;
  return 0;
}
