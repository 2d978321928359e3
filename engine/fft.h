// Single-precision real FFTs of the two lengths the engine uses. Spectra are
// n/2 + 1 complex bins stored as interleaved (real, imaginary) floats. The
// forward transform is unscaled; the inverse multiplies by the caller's scale
// and ignores the imaginary parts of bin 0 and bin n/2.
//
// Plans are built once per length, on first use, and shared read-only by all
// threads. Each call still makes one small heap allocation (the library's
// working buffer).
//
// The ...s calls run `count` independent 560-point transforms, kFftLanes at a
// time in the lanes of one vector transform: each lane does the library's own
// operations in its own order, so every output is the one-transform call's,
// bit for bit (the build forbids contraction into FMAs).
#pragma once

namespace corvina {

constexpr int kFft560 = 560;
constexpr int kFft16 = 16;

// 560 samples -> 281 complex bins (562 floats).
void ForwardRealFft560(const float* samples, float* spectrum);
// 281 complex bins -> 560 samples, each multiplied by `scale`.
void InverseRealFft560(const float* spectrum, float* samples, float scale);

constexpr int kFftLanes = 4;

// samples[t] (560 each) -> spectra[t] (562 floats each), t < count.
void ForwardRealFfts560(const float* const* samples, float* const* spectra, int count);
// spectra[t] -> samples[t], each multiplied by `scale`, t < count.
void InverseRealFfts560(const float* const* spectra, float* const* samples, int count, float scale);

// 16 samples -> 9 complex bins (18 floats).
void ForwardRealFft16(const float* samples, float* spectrum);
// 9 complex bins -> 16 samples, each multiplied by `scale`.
void InverseRealFft16(const float* spectrum, float* samples, float scale);

}  // namespace corvina
