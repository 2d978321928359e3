// Many streams in real time. Each of T threads owns its share of S streams and,
// at every tick of an absolute 10 ms clock, processes one frame of all of them
// through the whole chain: batched (one Corvina_ExtractPhoneN,
// Corvina_EstimatePitchN and Corvina_GenerateWaveformN call over the thread's
// streams) or, with --mode single, one ...1 call per stream and model. A frame
// misses its deadline when it ends after its tick + 10 ms; a thread that falls
// behind starts the next tick at once, so an overload shows as a run of misses.
// Per run: the time a thread spends per tick (median, p99, worst), that time
// per stream and its ratio to the multiply-add floor (a stream-frame's
// multiply-adds at the peak rate of one core, measured at the start), how late
// threads woke up, the misses, and the load average.
// --sweep finds, for both modes, the most streams (2, 4, ..., 40) that ran a
// few seconds without a miss, going up until a thread's median tick takes
// longer than 10 ms.
//   cmake --build build/perf --target bench_streams &&
//   build/perf/bench/bench_streams [--streams S] [--threads T] [--seconds N] [--mode batch|single|both]
//                                [--sweep] [--json PATH] [phone.bin pitch.bin generator.bin]
// Without files the weights are the shared random models.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_common.h"
#include "bench/floors.h"
#include "bench/network_costs.h"
#include "bench/stream_group.h"
#include "engine/corvina.h"

using namespace corvina::bench;

namespace {

constexpr auto kTick = std::chrono::milliseconds(10);
constexpr double kTickUs = 10000.0;
constexpr int kWarmUpTicks = 50;
constexpr int kSweepMax = 40;
constexpr double kSweepSeconds = 3.0;

struct Options {
  int streams = 20;
  int threads = 2;
  double seconds = 0.0;  // 0: 20 for one run, 3 per sweep step
  bool batch = true, single = false;
  bool sweep = false;
  const char* json = nullptr;
  const char* files[3] = {nullptr, nullptr, nullptr};  // phone, pitch, generator
};

// What one thread measured, one entry per timed tick.
struct Timing {
  std::vector<double> frame_us;       // processing time of the tick's frame
  std::vector<double> per_stream_us;  // the same over the thread's stream count
  std::vector<double> wake_us;        // how long after its tick the frame started
  long misses = 0;
};

void RunThread(Group* group, Mode mode, Clock::time_point start, int ticks, Timing* timing) {
  for (int t = 0; t < kWarmUpTicks + ticks; ++t) {
    const Clock::time_point tick = start + t * kTick;
    std::this_thread::sleep_until(tick);
    const Clock::time_point t0 = Clock::now();
    group->Frame(mode, t);
    const Clock::time_point t1 = Clock::now();
    if (t < kWarmUpTicks) continue;
    const int k = t - kWarmUpTicks;
    timing->frame_us[k] = Micros(t1 - t0);
    timing->per_stream_us[k] = timing->frame_us[k] / group->count();
    timing->wake_us[k] = Micros(t0 - tick);
    timing->misses += t1 > tick + kTick;
  }
}

struct Run {
  Mode mode;
  int streams, threads, ticks;
  Stats frame, wake;
  double per_stream_us;  // median
  long misses;
  double load_before, load_after;
};

Run RunStreams(const Models& models, const std::vector<float>& signal, const float* speaker, Mode mode, int streams,
               int threads, double seconds) {
  const int ticks = static_cast<int>(seconds * 100.0 + 0.5);
  std::vector<Timing> timings(threads);
  std::vector<std::unique_ptr<Group>> groups;
  for (int t = 0, first = 0; t < threads; ++t) {
    const int count = streams / threads + (t < streams % threads);
    groups.push_back(std::make_unique<Group>(models, signal, speaker, first, count));
    first += count;
    timings[t].frame_us.resize(ticks);
    timings[t].per_stream_us.resize(ticks);
    timings[t].wake_us.resize(ticks);
  }
  Run run{mode, streams, threads, ticks, {}, {}, 0.0, 0, LoadAverage(), 0.0};
  const Clock::time_point start = Clock::now() + std::chrono::milliseconds(20);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back(RunThread, groups[t].get(), mode, start, ticks, &timings[t]);
  for (std::thread& worker : workers) worker.join();
  run.load_after = LoadAverage();

  std::vector<double> frame, per_stream, wake;
  for (const Timing& timing : timings) {
    frame.insert(frame.end(), timing.frame_us.begin(), timing.frame_us.end());
    per_stream.insert(per_stream.end(), timing.per_stream_us.begin(), timing.per_stream_us.end());
    wake.insert(wake.end(), timing.wake_us.begin(), timing.wake_us.end());
    run.misses += timing.misses;
  }
  run.frame = Summarise(frame);
  run.wake = Summarise(wake);
  run.per_stream_us = Summarise(per_stream).median;
  return run;
}

void PrintHeader() {
  std::printf("| mode | streams | threads | median us | p99 us | worst us | us per stream-frame | x multiply-add "
              "floor | missed | wake-up p99 us | load before | load after |\n"
              "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
}

void PrintRun(const Run& r, double floor_us) {
  std::printf("| %s | %d | %d | %.0f | %.0f | %.0f | %.1f | %.2f | %ld of %d | %.0f | %.2f | %.2f |\n",
              ModeName(r.mode), r.streams, r.threads, r.frame.median, r.frame.p99, r.frame.worst, r.per_stream_us,
              r.per_stream_us / floor_us, r.misses, r.ticks * r.threads, r.wake.p99, r.load_before, r.load_after);
  std::fflush(stdout);
}

void WriteStats(std::FILE* out, const char* name, const Stats& s) {
  std::fprintf(out, "\"%s\": {\"median\": %.1f, \"p99\": %.1f, \"worst\": %.1f}", name, s.median, s.p99, s.worst);
}

bool WriteJson(const char* path, const std::string& processor, const Models& models, const FmaPeak& peak,
               const std::vector<Run>& runs, const int* sweep_best) {
  const double floor_us = peak.Micros(ChainCost().multiply_adds);
  std::FILE* out = OpenJson(path);
  if (out == nullptr) return false;
  std::fprintf(out, "{\n  \"processor\": \"%s\",\n  \"weights\": \"%s\",\n  \"tick_us\": 10000,",
               processor.c_str(), models.weights());
  std::fprintf(out, "\n  \"multiply_add_floor\": {\"width\": \"%s\", \"multiply_adds_per_s\": %.4g, "
                    "\"stream_frame_multiply_adds\": %zu, \"stream_frame_us\": %.2f},\n  \"runs\": [",
               peak.width, peak.multiply_adds_per_s, ChainCost().multiply_adds, floor_us);
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const Run& r = runs[i];
    std::fprintf(out, "%s\n    {\"mode\": \"%s\", \"streams\": %d, \"threads\": %d, \"ticks\": %d, ", i ? "," : "",
                 ModeName(r.mode), r.streams, r.threads, r.ticks);
    WriteStats(out, "frame_us", r.frame);
    std::fprintf(out, ", \"us_per_stream_frame\": %.2f, \"ratio_to_multiply_add_floor\": %.3f, "
                      "\"deadline_misses\": %ld, \"frames\": %d, ",
                 r.per_stream_us, r.per_stream_us / floor_us, r.misses, r.ticks * r.threads);
    WriteStats(out, "wake_up_us", r.wake);
    std::fprintf(out, ", \"load_average\": [%.2f, %.2f]}", r.load_before, r.load_after);
  }
  std::fprintf(out, "\n  ]");
  if (sweep_best != nullptr)
    std::fprintf(out, ",\n  \"sweep_most_streams_without_a_miss\": {\"batch\": %d, \"single\": %d}", sweep_best[0],
                 sweep_best[1]);
  std::fprintf(out, "\n}\n");
  std::fclose(out);
  return true;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  int file = 0;
  for (int i = 1; i < argc; ++i) {
    const bool has_value = i + 1 < argc;
    if (std::strcmp(argv[i], "--streams") == 0 && has_value) {
      options->streams = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--threads") == 0 && has_value) {
      options->threads = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--seconds") == 0 && has_value) {
      options->seconds = std::atof(argv[++i]);
    } else if (std::strcmp(argv[i], "--mode") == 0 && has_value) {
      const std::string mode = argv[++i];
      if (mode != "batch" && mode != "single" && mode != "both") return false;
      options->batch = mode != "single";
      options->single = mode != "batch";
    } else if (std::strcmp(argv[i], "--sweep") == 0) {
      options->sweep = true;
    } else if (std::strcmp(argv[i], "--json") == 0 && has_value) {
      options->json = argv[++i];
    } else if (argv[i][0] != '-' && file < 3) {
      options->files[file++] = argv[i];
    } else {
      return false;
    }
  }
  return (file == 0 || file == 3) && options->threads >= 1 && options->streams >= options->threads &&
         options->seconds >= 0.0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: %s [--streams S] [--threads T] [--seconds N] [--mode batch|single|both] [--sweep] "
                 "[--json PATH] [phone.bin pitch.bin generator.bin]\n(S >= T >= 1)\n",
                 argv[0]);
    return 2;
  }
  const Models models(options.files);
  const std::vector<float> signal = Signal(1000);
  const std::vector<float> speaker = Speaker();
  const std::string processor = ProcessorName();
  const double seconds = options.seconds > 0.0 ? options.seconds : options.sweep ? kSweepSeconds : 20.0;
  const FmaPeak peak = MeasureFmaPeak();
  const double floor_us = peak.Micros(ChainCost().multiply_adds);

  std::printf("corvina streams in real time: every thread processes one frame of each of its streams per 10 ms tick "
              "(absolute deadlines), %.0f s timed after %d warm-up ticks\n", seconds, kWarmUpTicks);
  std::printf("processor: %s; %u hardware threads; weights: %s\n", processor.c_str(),
              std::thread::hardware_concurrency(), models.weights());
  std::printf("multiply-add floor: a %s multiply-add loop ran %.1f G multiply-adds a second on one core; a "
              "stream-frame's %.2f M multiply-adds need %.1f us\n\n",
              peak.width, peak.multiply_adds_per_s * 1e-9, ChainCost().multiply_adds * 1e-6, floor_us);
  PrintHeader();
  std::vector<Run> runs;
  int best[2] = {0, 0};  // batch, single
  if (options.sweep) {
    // A miss on a shared machine may be another job's doing, so a mode's
    // sweep goes on until the median tick no longer fits in 10 ms.
    for (Mode mode : {Mode::kBatch, Mode::kSingle})
      for (int streams = std::max(2, options.threads); streams <= kSweepMax; streams += 2) {
        runs.push_back(RunStreams(models, signal, speaker.data(), mode, streams, options.threads, seconds));
        PrintRun(runs.back(), floor_us);
        if (runs.back().misses == 0) best[mode == Mode::kSingle] = streams;
        if (runs.back().frame.median > kTickUs) break;
      }
    std::printf("\nmost streams without a missed deadline (%d threads, %.0f s each): batch %d, single %d\n",
                options.threads, seconds, best[0], best[1]);
  } else {
    for (Mode mode : {Mode::kBatch, Mode::kSingle}) {
      if (!(mode == Mode::kBatch ? options.batch : options.single)) continue;
      runs.push_back(RunStreams(models, signal, speaker.data(), mode, options.streams, options.threads, seconds));
      PrintRun(runs.back(), floor_us);
    }
  }
  const int* sweep_best = options.sweep ? best : nullptr;
  if (options.json != nullptr && !WriteJson(options.json, processor, models, peak, runs, sweep_best)) return 1;
  return 0;
}
