// Spectral and lag features of the 560-sample history. Plain scalar code: the
// four FFTs dominate, and the per-bin and per-lag loops are short.
#include "spectral_front_end.h"

#include <cmath>
#include <complex>
#include <cstring>

#include "../engine/fft.h"

namespace corvina {
namespace {

constexpr int kHistory = kPitchHistory;
constexpr int kOldest = kHistory - kNewestSamples;  // 256: first sample of the compared window
constexpr int kSpectrumFloats = kHistory + 2;       // 281 complex bins
constexpr float kEpsilon = 1e-5f;

void UpdateHistory(const float* input, float* history) {
  std::memmove(history, history + CORVINA_IN_HOP_LENGTH, (kHistory - CORVINA_IN_HOP_LENGTH) * sizeof(float));
  std::memcpy(history + kHistory - CORVINA_IN_HOP_LENGTH, input, CORVINA_IN_HOP_LENGTH * sizeof(float));
}

void SpectralFeatures(PitchFrontEndState* state) {
  float spectrum[kSpectrumFloats];
  ForwardRealFft560(state->history, spectrum);
  float* log_magnitude = state->spectral;
  float* cosine = state->spectral + kSpectralBins;
  float* sine = state->spectral + 2 * kSpectralBins;
  for (int k = 0; k < kSpectralBins; ++k) {
    const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
    const float magnitude = std::abs(std::complex<float>(re, im));
    log_magnitude[k] = static_cast<float>(std::log10(static_cast<double>(magnitude + kEpsilon)));
    // Advance since the previous frame: X times the conjugate of the previous X.
    float* previous = state->previous_spectrum[k];
    const float advance_re = re * previous[0] + im * previous[1];
    const float advance_im = im * previous[0] - re * previous[1];
    const float g = 1.0f / (std::hypot(advance_re, advance_im) + kEpsilon);
    cosine[k] = advance_re * g;
    sine[k] = advance_im * g;
    previous[0] = re;
    previous[1] = im;
  }
}

// Lag l feature: sqrt(2/304 * sum (x[n] - x[n - l])^2) over the newest 304
// samples, expanded as E(now) + E(shifted) - 2 correlation. The shifted
// window's energy runs in double so 256 updates do not drift.
void LagFeatures(PitchFrontEndState* state) {
  const float* x = state->history;
  float square[kHistory];
  for (int n = 0; n < kHistory; ++n) square[n] = x[n] * x[n];
  double newest_energy = 0.0;
  for (int n = kOldest; n < kHistory; ++n) newest_energy += static_cast<double>(square[n]);
  const float e0 = static_cast<float>(newest_energy);

  float correlation[kHistory];
  LagCorrelation(x, correlation);
  double shifted_energy = newest_energy;
  for (int lag = 1; lag <= kLags; ++lag) {
    shifted_energy += static_cast<double>(square[kOldest - lag] - square[kHistory - lag]);
    const float d = static_cast<float>(shifted_energy) + (e0 - 2.0f * correlation[kCorrelationOffset + lag]);
    // Rounding can leave d slightly negative where the two windows match.
    state->lag[lag - 1] = d < 0.0f ? 0.0f : std::sqrt(d * 0.0065789474f);
  }
  state->loudness = static_cast<float>(0.5 * std::log10(static_cast<double>(e0 + kEpsilon)));
}

}  // namespace

void LagCorrelation(const float* history, float* correlation) {
  // a = newest 304 samples then zeros, b = the history reversed: their
  // circular convolution holds every lagged dot product with no wrap-around.
  float a[kHistory], b[kHistory];
  for (int m = 0; m < kNewestSamples; ++m) a[m] = history[kOldest + m];
  for (int m = kNewestSamples; m < kHistory; ++m) a[m] = 0.0f;
  for (int m = 0; m < kHistory; ++m) b[m] = history[kHistory - 1 - m];
  float spectrum_a[kSpectrumFloats], spectrum_b[kSpectrumFloats];
  ForwardRealFft560(a, spectrum_a);
  ForwardRealFft560(b, spectrum_b);
  for (int k = 0; k < kSpectrumFloats; k += 2) {
    const float ar = spectrum_a[k], ai = spectrum_a[k + 1];
    const float br = spectrum_b[k], bi = spectrum_b[k + 1];
    spectrum_a[k] = ar * br - ai * bi;
    spectrum_a[k + 1] = ar * bi + ai * br;
  }
  InverseRealFft560(spectrum_a, correlation, 0.0017857143f);
}

void SpectralFrontEnd(const float* input, PitchFrontEndState* state) {
  UpdateHistory(input, state->history);
  SpectralFeatures(state);
  LagFeatures(state);
}

}  // namespace corvina
