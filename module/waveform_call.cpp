// WaveformGenerator.__call__(phone, quantized_pitch, pitch_features,
// speaker_embeddings, context) -> float32 samples (length * 240,).
#include "../engine/corvina.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

namespace {

// The four converted inputs; released together on every path.
struct WaveformInputs {
  PyArrayObject* phone = nullptr;
  PyArrayObject* quantized_pitch = nullptr;
  PyArrayObject* pitch_features = nullptr;
  PyArrayObject* speaker_embeddings = nullptr;

  ~WaveformInputs() {
    Py_XDECREF(phone);
    Py_XDECREF(quantized_pitch);
    Py_XDECREF(pitch_features);
    Py_XDECREF(speaker_embeddings);
  }
};

// The first failed condition's message, or null when the shapes fit.
const char* ShapeError(const WaveformInputs& in, npy_intp length) {
  if (PyArray_DIM(in.phone, 0) != length) return "len(phone) != length";
  if (PyArray_DIM(in.phone, 1) != CORVINA_PHONE_CHANNELS) return "phone.shape[1] != PHONE_CHANNELS";
  if (PyArray_DIM(in.quantized_pitch, 0) != length) return "len(quantized_pitch) != length";
  if (PyArray_DIM(in.pitch_features, 0) != length) return "len(pitch_features) != length";
  if (PyArray_DIM(in.pitch_features, 1) != CORVINA_PITCH_FEATURES) return "pitch_features.shape[1] != 4";
  if (PyArray_DIM(in.speaker_embeddings, 0) != length) return "len(speaker_embeddings) != length";
  if (PyArray_DIM(in.speaker_embeddings, 1) != CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS)
    return "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS";
  return nullptr;
}

}  // namespace

PyObject* WaveformGeneratorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  static const char* keywords[] = {"phone", "quantized_pitch", "pitch_features", "speaker_embeddings", "context",
                                   nullptr};
  PyObject* phone_object = nullptr;
  PyObject* pitch_object = nullptr;
  PyObject* features_object = nullptr;
  PyObject* speaker_object = nullptr;
  PyObject* context_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOOOO!", const_cast<char**>(keywords), &phone_object,
                                   &pitch_object, &features_object, &speaker_object, &WaveformContextType,
                                   &context_object))
    return nullptr;
  if (ContextBlock(context_object) == nullptr) return nullptr;
  if (ModelBlock(self) == nullptr) return nullptr;
  const npy_intp length = reinterpret_cast<ContextObject*>(context_object)->length;

  WaveformInputs in;
  if (!(in.phone = AsFloat32Array(phone_object, 2))) return nullptr;
  if (!(in.quantized_pitch = AsInt32Array(pitch_object, 1))) return nullptr;
  if (!(in.pitch_features = AsFloat32Array(features_object, 2))) return nullptr;
  if (!(in.speaker_embeddings = AsFloat32Array(speaker_object, 2))) return nullptr;
  if (const char* message = ShapeError(in, length)) {
    PyErr_SetString(PyExc_ValueError, message);
    return nullptr;
  }
  // The engine reads the pitch-embedding row without a bound, so a bin
  // outside the table is refused here. The bin is copied before the check:
  // the conversion may hand back the caller's own array, which another thread
  // can write once the lock is released. A usable context has length 1.
  const std::int32_t bin = *static_cast<const std::int32_t*>(PyArray_DATA(in.quantized_pitch));
  if (bin < 0 || bin >= CORVINA_PITCH_BINS) {
    PyErr_SetString(PyExc_ValueError, "quantized_pitch not in range(PITCH_BINS)");
    return nullptr;
  }

  npy_intp shape[1] = {length * CORVINA_OUT_HOP_LENGTH};
  PyObject* output = PyArray_SimpleNew(1, shape, NPY_FLOAT32);
  if (output == nullptr) return nullptr;
  EngineClaim claim(self, context_object);
  if (!claim) {
    Py_DECREF(output);
    return nullptr;
  }
  const float* phone = static_cast<const float*>(PyArray_DATA(in.phone));
  const float* features = static_cast<const float*>(PyArray_DATA(in.pitch_features));
  const float* speaker = static_cast<const float*>(PyArray_DATA(in.speaker_embeddings));
  float* samples = static_cast<float*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(output)));
  Py_BEGIN_ALLOW_THREADS
  Corvina_GenerateWaveform1(static_cast<const CorvinaWaveformGenerator*>(claim.model_block()), phone, &bin, features,
                            speaker, samples, static_cast<CorvinaWaveformContext1*>(claim.context_block()));
  Py_END_ALLOW_THREADS
  return output;
}

}  // namespace corvina
