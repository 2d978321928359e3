/* A C host: creates and destroys every block through the shared library and
 * reads a parameter file. argv[1] is where to write that file. */
#include <stdio.h>
#include <stdlib.h>

#include "corvina.h"

static int failures = 0;
#define EXPECT(condition)                                                       \
  do {                                                                          \
    if (!(condition)) {                                                         \
      printf("%s:%d: expected %s\n", __FILE__, __LINE__, #condition);           \
      ++failures;                                                               \
    }                                                                           \
  } while (0)

static int is_aligned(const void* p) { return ((size_t)p % 64) == 0; }

int main(int argc, char** argv) {
  CorvinaPhoneExtractor* phone = Corvina_CreatePhoneExtractor();
  CorvinaPitchEstimator* pitch = Corvina_CreatePitchEstimator();
  CorvinaWaveformGenerator* waveform = Corvina_CreateWaveformGenerator();
  CorvinaPhoneContext1* phone_context = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch_context = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* waveform_context = Corvina_CreateWaveformContext1();
  const char* path = argc > 1 ? argv[1] : "c_api_phone.bin";
  FILE* file = fopen(path, "wb");
  int32_t n = -1;
  long i;

  EXPECT(phone && pitch && waveform && phone_context && pitch_context && waveform_context);
  EXPECT(is_aligned(phone) && is_aligned(pitch) && is_aligned(waveform));
  EXPECT(is_aligned(phone_context) && is_aligned(pitch_context) && is_aligned(waveform_context));

  /* A parameter file of the exact size, all zero halves, is read in full. */
  EXPECT(file != NULL);
  if (file) {
    for (i = 0; i < CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES; ++i) fputc(0, file);
    fclose(file);
    EXPECT(Corvina_ReadPhoneExtractorParameters(phone, path) == 0);
  }
  EXPECT(Corvina_ReadNSpeakers(path, &n) == 1 && n == -1); /* not a multiple of 512 */

  Corvina_DestroyPhoneExtractor(phone);
  Corvina_DestroyPitchEstimator(pitch);
  Corvina_DestroyWaveformGenerator(waveform);
  Corvina_DestroyPhoneContext1(phone_context);
  Corvina_DestroyPitchContext1(pitch_context);
  Corvina_DestroyWaveformContext1(waveform_context);
  Corvina_DestroyPhoneExtractor(NULL);
  Corvina_DestroyPitchEstimator(NULL);
  Corvina_DestroyWaveformGenerator(NULL);
  Corvina_DestroyPhoneContext1(NULL);
  Corvina_DestroyPitchContext1(NULL);
  Corvina_DestroyWaveformContext1(NULL);
  printf("%d passed, %d failed\n", failures == 0 ? 1 : 0, failures == 0 ? 0 : 1);
  return failures == 0 ? 0 : 1;
}
