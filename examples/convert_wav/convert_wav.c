/*
 * convert_wav MODEL_DIR INPUT OUTPUT [SPEAKER]
 *
 * Converts a 16 kHz audio file (any format libsndfile reads; channels are
 * averaged) into a 24 kHz 32-bit float WAV file, one 10 ms frame at a time,
 * through the engine's C interface. The model files are checked before the
 * engine reads them: the engine ends the process on a parameter file of the
 * wrong size.
 */
#include <corvina.h>
#include <sndfile.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum { HIDDEN = CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS };

static int fail(const char* message, const char* detail) {
  fprintf(stderr, "convert_wav: %s%s\n", message, detail ? detail : "");
  return 1;
}

/* Joins dir and name into path; 0 when it does not fit. */
static int join(char* path, size_t size, const char* dir, const char* name) {
  return snprintf(path, size, "%s/%s", dir, name) < (int)size;
}

/* 0 when path is a regular file of exactly `bytes` bytes (or, with bytes 0,
 * a non-zero multiple of a speaker row). */
static int check_size(const char* path, long long bytes) {
  struct stat s;
  if (stat(path, &s) != 0 || !S_ISREG(s.st_mode)) {
    fprintf(stderr, "convert_wav: %s: missing or not a regular file\n", path);
    return 1;
  }
  const long long size = (long long)s.st_size;
  const int fits = bytes ? size == bytes : size > 0 && size % CORVINA_SPEAKER_EMBEDDING_BYTES == 0;
  if (!fits) {
    fprintf(stderr, "convert_wav: %s: %lld bytes, expected %s%lld\n", path, size,
            bytes ? "exactly " : "a non-zero multiple of ",
            bytes ? bytes : (long long)CORVINA_SPEAKER_EMBEDDING_BYTES);
    return 1;
  }
  return 0;
}

typedef struct {
  CorvinaPhoneExtractor* phone;
  CorvinaPitchEstimator* pitch;
  CorvinaWaveformGenerator* waveform;
  float* speakers;
  int32_t n_speakers;
} Model;

static int load_model(Model* m, const char* dir) {
  char phone[4096], pitch[4096], waveform[4096], speakers[4096];
  if (!join(phone, sizeof phone, dir, "phone_extractor.bin") ||
      !join(pitch, sizeof pitch, dir, "pitch_estimator.bin") ||
      !join(waveform, sizeof waveform, dir, "waveform_generator.bin") ||
      !join(speakers, sizeof speakers, dir, "speaker_embeddings.bin"))
    return fail("model path too long", NULL);
  if (check_size(phone, CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES) ||
      check_size(pitch, CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES) ||
      check_size(waveform, CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES) || check_size(speakers, 0))
    return 1;
  if (Corvina_ReadNSpeakers(speakers, &m->n_speakers) != 0) return fail("cannot read ", speakers);
  m->speakers = malloc((size_t)m->n_speakers * HIDDEN * sizeof(float));
  if (!m->speakers || Corvina_ReadSpeakerEmbeddings(speakers, m->speakers) != 0)
    return fail("cannot read ", speakers);
  m->phone = Corvina_CreatePhoneExtractor();
  m->pitch = Corvina_CreatePitchEstimator();
  m->waveform = Corvina_CreateWaveformGenerator();
  Corvina_ReadPhoneExtractorParameters(m->phone, phone);
  Corvina_ReadPitchEstimatorParameters(m->pitch, pitch);
  Corvina_ReadWaveformGeneratorParameters(m->waveform, waveform);
  return 0;
}

static void free_model(Model* m) {
  Corvina_DestroyPhoneExtractor(m->phone);
  Corvina_DestroyPitchEstimator(m->pitch);
  Corvina_DestroyWaveformGenerator(m->waveform);
  free(m->speakers);
}

/* Reads up to 160 frames from in, averaging channels; returns the count read. */
static sf_count_t read_frame(SNDFILE* in, int channels, float* frame, float* scratch) {
  const sf_count_t got = sf_readf_float(in, scratch, CORVINA_IN_HOP_LENGTH);
  for (sf_count_t i = 0; i < CORVINA_IN_HOP_LENGTH; ++i) {
    float sum = 0.0f;
    for (int c = 0; c < channels && i < got; ++c) sum += scratch[i * channels + c];
    frame[i] = i < got ? sum / (float)channels : 0.0f;
  }
  return got;
}

static int convert(const Model* m, SNDFILE* in, int channels, SNDFILE* out, const float* speaker) {
  CorvinaPhoneContext1* pc = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* tc = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* wc = Corvina_CreateWaveformContext1();
  float* scratch = malloc((size_t)channels * CORVINA_IN_HOP_LENGTH * sizeof(float));
  float frame[CORVINA_IN_HOP_LENGTH], phone[CORVINA_PHONE_CHANNELS], pitch_features[CORVINA_PITCH_FEATURES];
  float output[CORVINA_OUT_HOP_LENGTH];
  int32_t bin;
  long long frames = 0;
  sf_count_t got;
  int status = scratch ? 0 : 1;
  while (status == 0 && (got = read_frame(in, channels, frame, scratch)) > 0) {
    Corvina_ExtractPhone1(m->phone, frame, phone, pc);
    Corvina_EstimatePitch1(m->pitch, frame, &bin, pitch_features, tc);
    Corvina_GenerateWaveform1(m->waveform, phone, &bin, pitch_features, speaker, output, wc);
    /* A partial last frame was completed with silence; keep only its share. */
    const sf_count_t keep = got * CORVINA_OUT_HOP_LENGTH / CORVINA_IN_HOP_LENGTH;
    if (sf_writef_float(out, output, keep) != keep) status = fail("write error: ", sf_strerror(out));
    ++frames;
  }
  printf("converted %lld frames (%.2f s)\n", frames, frames * 0.01);
  free(scratch);
  Corvina_DestroyWaveformContext1(wc);
  Corvina_DestroyPitchContext1(tc);
  Corvina_DestroyPhoneContext1(pc);
  return status;
}

int main(int argc, char** argv) {
  if (argc < 4 || argc > 5) {
    fprintf(stderr, "usage: %s MODEL_DIR INPUT OUTPUT.wav [SPEAKER]\n", argv[0]);
    return 2;
  }
  Model model = {0};
  if (load_model(&model, argv[1])) {
    free_model(&model);
    return 1;
  }
  const int speaker = argc == 5 ? atoi(argv[4]) : 0;
  if (speaker < 0 || speaker >= model.n_speakers) {
    fprintf(stderr, "convert_wav: speaker %d out of range 0..%d\n", speaker, model.n_speakers - 1);
    free_model(&model);
    return 1;
  }
  SF_INFO in_info = {0};
  SNDFILE* in = sf_open(argv[2], SFM_READ, &in_info);
  if (!in) {
    fprintf(stderr, "convert_wav: cannot read %s: %s\n", argv[2], sf_strerror(NULL));
    free_model(&model);
    return 1;
  }
  if (in_info.samplerate != CORVINA_IN_SAMPLE_RATE) {
    fprintf(stderr, "convert_wav: %s is %d Hz; this example takes %d Hz input\n", argv[2],
            in_info.samplerate, CORVINA_IN_SAMPLE_RATE);
    sf_close(in);
    free_model(&model);
    return 1;
  }
  SF_INFO out_info = {.samplerate = CORVINA_OUT_SAMPLE_RATE, .channels = 1,
                      .format = SF_FORMAT_WAV | SF_FORMAT_FLOAT};
  SNDFILE* out = sf_open(argv[3], SFM_WRITE, &out_info);
  int status = 1;
  if (!out) {
    fprintf(stderr, "convert_wav: cannot write %s: %s\n", argv[3], sf_strerror(NULL));
  } else {
    status = convert(&model, in, in_info.channels, out, model.speakers + (size_t)speaker * HIDDEN);
    sf_close(out);
    if (status) remove(argv[3]);
  }
  sf_close(in);
  free_model(&model);
  return status;
}
