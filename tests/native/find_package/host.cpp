#include <corvina.h>

#include <cstdio>

int main() {
  CorvinaWaveformGenerator* model = Corvina_CreateWaveformGenerator();
  CorvinaWaveformContext1* context = Corvina_CreateWaveformContext1();
  const bool ok = model != nullptr && context != nullptr;
  Corvina_DestroyWaveformContext1(context);
  Corvina_DestroyWaveformGenerator(model);
  std::printf("%s\n", ok ? "host linked the engine" : "creation failed");
  return ok ? 0 : 1;
}
