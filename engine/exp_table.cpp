#include "exp_table.h"

#include <cmath>

namespace corvina {

float g_exp_mantissa[1024];

namespace {

struct ExpTableBuilder {
  ExpTableBuilder() {
    for (int i = 0; i < 1024; ++i) g_exp_mantissa[i] = static_cast<float>(std::exp2(i * 0.0009765625));
  }
} g_build_exp_table;

}  // namespace
}  // namespace corvina
