// Softmax over the bins, then the heaviest window of 48 bins. Bin 0 stands
// for "no pitch": its probability is reported on its own and replaced by -100
// so that no window containing it can win. Window sums run in double so the
// 336 running updates do not drift; ties go to the lowest index.
#include "pitch_decoder.h"

#include <cfloat>
#include <cmath>

namespace corvina {

PitchDecision DecodePitch(const float* scores) {
  constexpr int kOctave = CORVINA_PITCH_BINS_PER_OCTAVE;
  float max_score = -FLT_MAX;
  for (int i = 0; i < kPitchBins; ++i)
    if (scores[i] > max_score) max_score = scores[i];
  float total = 0.0f;
  for (int i = 0; i < kPitchBins; ++i) total += std::exp(scores[i] - max_score);
  const float log_total = max_score + std::log(total);
  float p[kPitchBins];
  for (int i = 0; i < kPitchBins; ++i) p[i] = std::exp(scores[i] - log_total);

  PitchDecision decision;
  decision.p0 = p[0];
  p[0] = -100.0f;

  double running = 0.0;
  for (int i = 1; i < kPitchWindow; ++i) running += static_cast<double>(p[i]);
  running += static_cast<double>(p[0]);
  float window_sum[kPitchWindows];
  window_sum[0] = static_cast<float>(running);
  int best = 0;
  double best_sum = running;
  for (int j = 1; j < kPitchWindows; ++j) {
    running += static_cast<double>(p[j + kPitchWindow - 1] - p[j - 1]);
    window_sum[j] = static_cast<float>(running);
    if (running > best_sum) {
      best_sum = running;
      best = j;
    }
  }
  decision.window = best;
  decision.lower_ratio =
      best >= kOctave + 1 ? static_cast<float>(static_cast<double>(window_sum[best - kOctave]) / best_sum) : 0.0f;
  decision.upper_ratio = best <= kPitchWindows - 1 - kOctave
                             ? static_cast<float>(static_cast<double>(window_sum[best + kOctave]) / best_sum)
                             : 0.0f;

  int bin = best;
  for (int i = best + 1; i < best + kPitchWindow; ++i)
    if (p[i] > p[bin]) bin = i;
  decision.bin = bin;
  return decision;
}

}  // namespace corvina
