#include <cmath>

#include "kernels.h"

namespace corvina {

void NormalizationCoefficients(const float* x, int n, float* r, float* s) {
  double sum = 0.0, sum_squares = 0.0;
  for (int i = 0; i < n; ++i) {
    sum += static_cast<double>(x[i]);
    sum_squares += static_cast<double>(x[i] * x[i]);
  }
  const double inverse_n = 1.0 / n;
  const double mean = sum * inverse_n;
  // The single-precision epsilon, widened, is added before mean^2 is taken off.
  const double variance = sum_squares * inverse_n + static_cast<double>(1e-5f) - mean * mean;
  const double reciprocal = 1.0 / std::sqrt(variance);
  *r = static_cast<float>(reciprocal);
  *s = static_cast<float>(-mean * reciprocal);
}

}  // namespace corvina
