// The table exponential shared by the networks' sigmoid, tanh and SiLU.
//
// e^v = 2^(k/1024) (1 + r) with k = round(v * 1024 log2 e): the mantissa
// 2^((k mod 1024)/1024) comes from a 1024-entry table, the power of two is
// placed in the exponent field, and 1 + r = (v + 1) - k ln2/1024 is one fused
// multiply-add. Inputs are clamped to [-88, 88]; below about -87.34 the
// exponent field reaches zero and the result is a denormal, by design.
#pragma once
#include <cstdint>

namespace corvina {

constexpr float kExpUpperClamp = 88.0f;
constexpr float kExpLowerClamp = -88.0f;
constexpr float kExpScale = 1477.3197f;         // 1024 log2(e), bits 0x44B8AA3B
constexpr float kExpStep = 0.00067690155f;      // ln(2) / 1024, bits 0x3A317218
constexpr std::int32_t kExpIndexMask = 1023;
constexpr std::int32_t kExpBias = 127 * 1024;  // 0x1FC00

// Entry i is 2^(i/1024), computed in double precision and rounded. Built by a
// static initialiser when the library loads, compiled for plain x86-64.
extern float g_exp_mantissa[1024];

}  // namespace corvina
