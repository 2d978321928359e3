// Spectral and lag features of the 560-sample history. Plain scalar code but
// for the FFTs, which dominate: the batched front end gathers the transforms
// of up to four streams into one vector transform (engine/fft.h).
#include "spectral_front_end.h"

#include <cmath>
#include <cstring>

#include "../engine/fft.h"

namespace corvina {
namespace {

constexpr int kHistory = kPitchHistory;
constexpr int kNewestSamples = 304;                 // the window every lag is compared over
constexpr int kOldest = kHistory - kNewestSamples;  // 256: first sample of the compared window
constexpr int kCorrelationOffset = kNewestSamples - 1;  // lag l sits at 303 + l
constexpr int kSpectrumFloats = kHistory + 2;       // 281 complex bins
constexpr float kEpsilon = 1e-5f;

// A stream's transforms of one frame. The lag correlation[303 + l] = sum over
// m < 304 of x[256 + m] * x[256 + m - l], for l = 1..256, is the circular
// convolution of the newest 304 samples (then zeros) with the history
// reversed, which holds every lagged dot product with no wrap-around; the
// other 304 entries are by-products.
struct Transforms {
  float spectrum[kSpectrumFloats];  // of the history
  float newest[kHistory];           // then the correlation
  float reversed[kHistory];
  float newest_spectrum[kSpectrumFloats];  // then the product of the two spectra
  float reversed_spectrum[kSpectrumFloats];
};

void UpdateHistory(const float* input, float* history) {
  std::memmove(history, history + CORVINA_IN_HOP_LENGTH, (kHistory - CORVINA_IN_HOP_LENGTH) * sizeof(float));
  std::memcpy(history + kHistory - CORVINA_IN_HOP_LENGTH, input, CORVINA_IN_HOP_LENGTH * sizeof(float));
}

void PrepareCorrelation(const float* history, Transforms* t) {
  for (int m = 0; m < kNewestSamples; ++m) t->newest[m] = history[kOldest + m];
  for (int m = kNewestSamples; m < kHistory; ++m) t->newest[m] = 0.0f;
  for (int m = 0; m < kHistory; ++m) t->reversed[m] = history[kHistory - 1 - m];
}

void MultiplySpectra(float* a, const float* b) {
  for (int k = 0; k < kSpectrumFloats; k += 2) {
    const float ar = a[k], ai = a[k + 1];
    const float br = b[k], bi = b[k + 1];
    a[k] = ar * br - ai * bi;
    a[k + 1] = ar * bi + ai * br;
  }
}

void SpectralFeatures(const float* spectrum, PitchFrontEndState* state) {
  float* log_magnitude = state->spectral;
  float* cosine = state->spectral + kSpectralBins;
  float* sine = state->spectral + 2 * kSpectralBins;
  for (int k = 0; k < kSpectralBins; ++k) {
    const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
    const float magnitude = Hypot(re, im);  // |re + i im|
    log_magnitude[k] = static_cast<float>(std::log10(static_cast<double>(magnitude + kEpsilon)));
    // Advance since the previous frame: X times the conjugate of the previous X.
    float* previous = state->previous_spectrum[k];
    const float advance_re = re * previous[0] + im * previous[1];
    const float advance_im = im * previous[0] - re * previous[1];
    const float g = 1.0f / (Hypot(advance_re, advance_im) + kEpsilon);
    cosine[k] = advance_re * g;
    sine[k] = advance_im * g;
    previous[0] = re;
    previous[1] = im;
  }
}

// Lag l feature: sqrt(2/304 * sum (x[n] - x[n - l])^2) over the newest 304
// samples, expanded as E(now) + E(shifted) - 2 correlation. The shifted
// window's energy runs in double so 256 updates do not drift.
void LagFeatures(const float* correlation, PitchFrontEndState* state) {
  const float* x = state->history;
  float square[kHistory];
  for (int n = 0; n < kHistory; ++n) square[n] = x[n] * x[n];
  double newest_energy = 0.0;
  for (int n = kOldest; n < kHistory; ++n) newest_energy += static_cast<double>(square[n]);
  const float e0 = static_cast<float>(newest_energy);

  double shifted_energy = newest_energy;
  for (int lag = 1; lag <= kLags; ++lag) {
    shifted_energy += static_cast<double>(square[kOldest - lag] - square[kHistory - lag]);
    const float d = static_cast<float>(shifted_energy) + (e0 - 2.0f * correlation[kCorrelationOffset + lag]);
    // Rounding can leave d slightly negative where the two windows match.
    state->lag[lag - 1] = d < 0.0f ? 0.0f : std::sqrt(d * 0.0065789474f);
  }
  state->loudness = static_cast<float>(0.5 * std::log10(static_cast<double>(e0 + kEpsilon)));
}

// Two routes to the same bits: the transforms one at a time, or in lanes.
struct OneAtATime {
  static void Forward(const float* const* samples, float* const* spectra, int count) {
    for (int t = 0; t < count; ++t) ForwardRealFft560(samples[t], spectra[t]);
  }
  static void Inverse(const float* const* spectra, float* const* samples, int count, float scale) {
    for (int t = 0; t < count; ++t) InverseRealFft560(spectra[t], samples[t], scale);
  }
};
struct InLanes {
  static void Forward(const float* const* samples, float* const* spectra, int count) {
    ForwardRealFfts560(samples, spectra, count);
  }
  static void Inverse(const float* const* spectra, float* const* samples, int count, float scale) {
    InverseRealFfts560(spectra, samples, count, scale);
  }
};

constexpr int kGroup = kFftLanes;  // streams whose transforms are gathered

// n <= kGroup streams: the three forward transforms of every stream, then
// the inverse of every stream's product.
template <typename Fft>
void FrontEndGroup(const float* const* inputs, PitchFrontEndState* const* states, int n) {
  Transforms t[kGroup];
  const float* forward_in[3 * kGroup];
  float* forward_out[3 * kGroup];
  const float* inverse_in[kGroup];
  float* inverse_out[kGroup];
  for (int s = 0; s < n; ++s) {
    UpdateHistory(inputs[s], states[s]->history);
    PrepareCorrelation(states[s]->history, &t[s]);
    forward_in[3 * s] = states[s]->history;
    forward_in[3 * s + 1] = t[s].newest;
    forward_in[3 * s + 2] = t[s].reversed;
    forward_out[3 * s] = t[s].spectrum;
    forward_out[3 * s + 1] = t[s].newest_spectrum;
    forward_out[3 * s + 2] = t[s].reversed_spectrum;
  }
  Fft::Forward(forward_in, forward_out, 3 * n);
  for (int s = 0; s < n; ++s) {
    SpectralFeatures(t[s].spectrum, states[s]);
    MultiplySpectra(t[s].newest_spectrum, t[s].reversed_spectrum);
    inverse_in[s] = t[s].newest_spectrum;
    inverse_out[s] = t[s].newest;
  }
  Fft::Inverse(inverse_in, inverse_out, n, 0.0017857143f);
  for (int s = 0; s < n; ++s) LagFeatures(t[s].newest, states[s]);
}

}  // namespace

void SpectralFrontEnd(const float* input, PitchFrontEndState* state) {
  FrontEndGroup<OneAtATime>(&input, &state, 1);
}

void SpectralFrontEndN(const float* const* inputs, PitchFrontEndState* const* states, int n) {
  for (int first = 0; first < n; first += kGroup)
    FrontEndGroup<InLanes>(inputs + first, states + first, n - first < kGroup ? n - first : kGroup);
}

}  // namespace corvina
