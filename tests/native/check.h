// A minimal test harness: TEST cases register themselves, CHECK records
// failures with file and line, main() prints "N passed, N failed".
#pragma once
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace check {

struct Case {
  const char* name;
  std::function<void()> body;
};

inline std::vector<Case>& Cases() {
  static std::vector<Case> cases;
  return cases;
}

inline int& Failures() {
  static int failures = 0;
  return failures;
}

struct Register {
  Register(const char* name, std::function<void()> body) { Cases().push_back({name, std::move(body)}); }
};

// Seed for random tests: CORVINA_TEST_SEED overrides the fixed default, and
// the seed is printed whenever a case fails.
inline unsigned Seed() {
  const char* text = std::getenv("CORVINA_TEST_SEED");
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20261121u;
}

}  // namespace check

#define CHECK_CONCAT2(a, b) a##b
#define CHECK_CONCAT(a, b) CHECK_CONCAT2(a, b)
#define TEST(name)                                                              \
  static void name();                                                           \
  static check::Register CHECK_CONCAT(register_, name)(#name, name);            \
  static void name()

#define CHECK_MSG(condition, ...)                                               \
  do {                                                                          \
    if (!(condition)) {                                                         \
      std::printf("%s:%d: CHECK failed: %s: ", __FILE__, __LINE__, #condition); \
      std::printf(__VA_ARGS__);                                                 \
      std::printf("\n");                                                        \
      ++check::Failures();                                                      \
    }                                                                           \
  } while (0)
#define CHECK(condition) CHECK_MSG(condition, "%s", "")

#define CHECK_MAIN                                                              \
  int main() {                                                                  \
    int passed = 0, failed = 0;                                                 \
    for (const auto& c : check::Cases()) {                                      \
      const int before = check::Failures();                                     \
      c.body();                                                                 \
      if (check::Failures() == before) {                                        \
        ++passed;                                                               \
      } else {                                                                  \
        ++failed;                                                               \
        std::printf("FAILED %s (seed %u)\n", c.name, check::Seed());            \
      }                                                                         \
    }                                                                           \
    std::printf("%d passed, %d failed\n", passed, failed);                      \
    return failed == 0 ? 0 : 1;                                                 \
  }
