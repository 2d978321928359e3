/*
 * corvina: real-time voice conversion, one 10 ms frame at a time.
 *
 * A host feeds 160 samples of 16 kHz speech per frame to the phone extractor
 * and the pitch estimator, hands their outputs and a speaker embedding to the
 * waveform generator, and gets 240 samples of 24 kHz converted speech back.
 * Every model is causal: nothing is looked ahead, all history lives in the
 * stream's context block.
 *
 * Blocks are opaque, fixed-size, 64-byte-aligned and zero-filled at creation.
 * A model block is read-only while frames are processed, so one model may
 * serve any number of streams (one context per stream and model) on any
 * number of threads. A context must not be used by two calls at once.
 *
 * Parameter files are trusted input: a file that cannot be opened, is too
 * short or too long makes the reading function print one line on stderr
 * ("Cannot open file <path>.", "Too small file.", "Too large file.") and
 * abort the process. A host that must survive a bad file checks its size
 * before calling (CORVINA_*_PARAMETER_BYTES below). Processing functions
 * check nothing and never fail.
 */
#ifndef CORVINA_H
#define CORVINA_H

#include <stdint.h>

#if defined(_WIN32)
#  define CORVINA_API __declspec(dllexport)
#else
#  define CORVINA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Fixed dimensions. */
#define CORVINA_IN_SAMPLE_RATE 16000
#define CORVINA_OUT_SAMPLE_RATE 24000
#define CORVINA_IN_HOP_LENGTH 160
#define CORVINA_OUT_HOP_LENGTH 240
#define CORVINA_PHONE_CHANNELS 256
#define CORVINA_PITCH_BINS 384
#define CORVINA_PITCH_BINS_PER_OCTAVE 96
#define CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS 256
#define CORVINA_PITCH_FEATURES 4

/* Exact sizes of the parameter files, and bytes per speaker-file row. */
#define CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES 10847360
#define CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES 3434112
#define CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES 11463360
#define CORVINA_SPEAKER_EMBEDDING_BYTES 512

/* Opaque blocks. */
typedef struct CorvinaPhoneExtractor CorvinaPhoneExtractor;
typedef struct CorvinaPhoneContext1 CorvinaPhoneContext1;
typedef struct CorvinaPitchEstimator CorvinaPitchEstimator;
typedef struct CorvinaPitchContext1 CorvinaPitchContext1;
typedef struct CorvinaWaveformGenerator CorvinaWaveformGenerator;
typedef struct CorvinaWaveformContext1 CorvinaWaveformContext1;

/* Phone extractor: 160 samples at 16 kHz -> 256 phone features. */
CORVINA_API CorvinaPhoneExtractor* Corvina_CreatePhoneExtractor(void);
CORVINA_API void Corvina_DestroyPhoneExtractor(CorvinaPhoneExtractor* model);
CORVINA_API CorvinaPhoneContext1* Corvina_CreatePhoneContext1(void);
CORVINA_API void Corvina_DestroyPhoneContext1(CorvinaPhoneContext1* context);
/* Returns 0; aborts the process on a bad file. */
CORVINA_API int Corvina_ReadPhoneExtractorParameters(CorvinaPhoneExtractor* model, const char* path);
/* One 10 ms frame: input[160] samples -> output[256] phone features. */
CORVINA_API void Corvina_ExtractPhone1(const CorvinaPhoneExtractor* model, const float* input, float* output,
                                       CorvinaPhoneContext1* context);

/* Pitch estimator: 160 samples -> pitch bin (1..383) and 4 pitch features
 * (loudness, probability of bin 0, lower-octave ratio, upper-octave ratio). */
CORVINA_API CorvinaPitchEstimator* Corvina_CreatePitchEstimator(void);
CORVINA_API void Corvina_DestroyPitchEstimator(CorvinaPitchEstimator* model);
CORVINA_API CorvinaPitchContext1* Corvina_CreatePitchContext1(void);
CORVINA_API void Corvina_DestroyPitchContext1(CorvinaPitchContext1* context);
CORVINA_API int Corvina_ReadPitchEstimatorParameters(CorvinaPitchEstimator* model, const char* path);
/* One frame: 160 samples in; the pitch bin and the 4 pitch features out. */
CORVINA_API void Corvina_EstimatePitch1(const CorvinaPitchEstimator* model, const float* input,
                                        int32_t* quantized_pitch, float* pitch_features,
                                        CorvinaPitchContext1* context);

/* Waveform generator: phone features, pitch bin, pitch features and a
 * speaker embedding -> 240 samples at 24 kHz. */
CORVINA_API CorvinaWaveformGenerator* Corvina_CreateWaveformGenerator(void);
CORVINA_API void Corvina_DestroyWaveformGenerator(CorvinaWaveformGenerator* model);
CORVINA_API CorvinaWaveformContext1* Corvina_CreateWaveformContext1(void);
CORVINA_API void Corvina_DestroyWaveformContext1(CorvinaWaveformContext1* context);
CORVINA_API int Corvina_ReadWaveformGeneratorParameters(CorvinaWaveformGenerator* model, const char* path);
/* One frame: phone[256], *quantized_pitch, pitch_features[4] and
 * speaker_embedding[256] in; output[240] samples out (the inputs are copied
 * first, so the arrays may overlap). The pitch bin must lie in 0..383
 * (CORVINA_PITCH_BINS - 1): it indexes the pitch-embedding table and is not
 * checked. */
CORVINA_API void Corvina_GenerateWaveform1(const CorvinaWaveformGenerator* model, const float* phone,
                                           const int32_t* quantized_pitch, const float* pitch_features,
                                           const float* speaker_embedding, float* output,
                                           CorvinaWaveformContext1* context);

/* Speaker files: 256 half floats (512 bytes) per speaker, no header.
 * Corvina_ReadNSpeakers returns 0 and stores the count, or 1 (count untouched)
 * when the file cannot be opened or its size is not a multiple of 512.
 * Corvina_ReadSpeakerEmbeddings writes 256 floats per speaker for every whole
 * 16-byte piece of the file, with no bound of its own: size `embeddings` from
 * a count taken just before. Returns 1 if the file cannot be opened. */
/* Batches: one frame of n streams in one call (n >= 0). Stream i reads and
 * writes only its own arrays (element i of each pointer array) and its own
 * context contexts[i]; the n contexts must be distinct. Each layer's weights
 * are fetched from memory once for the whole batch instead of once per
 * stream, and every stream's outputs are bit-identical to those of its own
 * ...1 call. Streams may join or leave a batch between frames. */
CORVINA_API void Corvina_ExtractPhoneN(const CorvinaPhoneExtractor* model, int32_t n, const float* const* inputs,
                                       float* const* outputs, CorvinaPhoneContext1* const* contexts);
CORVINA_API void Corvina_EstimatePitchN(const CorvinaPitchEstimator* model, int32_t n, const float* const* inputs,
                                        int32_t* const* quantized_pitch, float* const* pitch_features,
                                        CorvinaPitchContext1* const* contexts);
CORVINA_API void Corvina_GenerateWaveformN(const CorvinaWaveformGenerator* model, int32_t n,
                                           const float* const* phone, const int32_t* const* quantized_pitch,
                                           const float* const* pitch_features,
                                           const float* const* speaker_embedding, float* const* output,
                                           CorvinaWaveformContext1* const* contexts);

CORVINA_API int Corvina_ReadNSpeakers(const char* path, int32_t* n_speakers);
CORVINA_API int Corvina_ReadSpeakerEmbeddings(const char* path, float* embeddings);

#ifdef __cplusplus
}
#endif

#endif /* CORVINA_H */
