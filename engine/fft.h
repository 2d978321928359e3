// Single-precision real FFTs of the two lengths the engine uses. Spectra are
// n/2 + 1 complex bins stored as interleaved (real, imaginary) floats. The
// forward transform is unscaled; the inverse multiplies by the caller's scale
// and ignores the imaginary parts of bin 0 and bin n/2.
//
// Plans are built once per length, on first use, and shared read-only by all
// threads. Each call still makes one small heap allocation (the library's
// working buffer).
#pragma once

namespace corvina {

constexpr int kFft560 = 560;
constexpr int kFft16 = 16;

// 560 samples -> 281 complex bins (562 floats).
void ForwardRealFft560(const float* samples, float* spectrum);
// 281 complex bins -> 560 samples, each multiplied by `scale`.
void InverseRealFft560(const float* spectrum, float* samples, float scale);

// 16 samples -> 9 complex bins (18 floats).
void ForwardRealFft16(const float* samples, float* spectrum);
// 9 complex bins -> 16 samples, each multiplied by `scale`.
void InverseRealFft16(const float* spectrum, float* samples, float scale);

}  // namespace corvina
