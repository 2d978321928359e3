// WaveformGenerator.__call__(phone, quantized_pitch, pitch_features,
// speaker_embeddings, context) -> float32 samples (length * 240,), and
// WaveformGenerator.batch(..., contexts) -> float32 samples (n, 240).
#include <vector>

#include "../engine/corvina.h"
#include "batch_claims.h"
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

  // Converts and checks the shapes for `rows` frames: the context's length, or
  // the batch's number of contexts. False with the error set.
  bool Convert(PyObject* const objects[4], npy_intp rows, bool batch) {
    if (!(phone = AsFloat32Array(objects[0], 2))) return false;
    if (!(quantized_pitch = AsInt32Array(objects[1], 1))) return false;
    if (!(pitch_features = AsFloat32Array(objects[2], 2))) return false;
    if (!(speaker_embeddings = AsFloat32Array(objects[3], 2))) return false;
    const char* message = ShapeError(rows, batch);
    if (message != nullptr) PyErr_SetString(PyExc_ValueError, message);
    return message == nullptr;
  }

  // The first failed condition's message, or null when the shapes fit.
  const char* ShapeError(npy_intp rows, bool batch) const {
    if (PyArray_DIM(phone, 0) != rows) return batch ? "len(contexts) != len(phone)" : "len(phone) != length";
    if (PyArray_DIM(phone, 1) != CORVINA_PHONE_CHANNELS) return "phone.shape[1] != PHONE_CHANNELS";
    if (PyArray_DIM(quantized_pitch, 0) != rows)
      return batch ? "len(contexts) != len(quantized_pitch)" : "len(quantized_pitch) != length";
    if (PyArray_DIM(pitch_features, 0) != rows)
      return batch ? "len(contexts) != len(pitch_features)" : "len(pitch_features) != length";
    if (PyArray_DIM(pitch_features, 1) != CORVINA_PITCH_FEATURES) return "pitch_features.shape[1] != 4";
    if (PyArray_DIM(speaker_embeddings, 0) != rows)
      return batch ? "len(contexts) != len(speaker_embeddings)" : "len(speaker_embeddings) != length";
    if (PyArray_DIM(speaker_embeddings, 1) != CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS)
      return "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS";
    return nullptr;
  }

  // Copies the pitch bins to `bins` (one per row) before checking them: the
  // conversion may hand back the caller's own array, which another thread can
  // write once the lock is released. The engine reads the pitch-embedding row
  // without a bound, so a bin outside the table is refused here. False with
  // the error set.
  bool CopyBins(std::int32_t* bins) const {
    const auto* data = static_cast<const std::int32_t*>(PyArray_DATA(quantized_pitch));
    for (npy_intp i = 0; i < PyArray_DIM(quantized_pitch, 0); ++i) {
      bins[i] = data[i];
      if (bins[i] < 0 || bins[i] >= CORVINA_PITCH_BINS) {
        PyErr_SetString(PyExc_ValueError, "quantized_pitch not in range(PITCH_BINS)");
        return false;
      }
    }
    return true;
  }
};

// The batch once its contexts are checked: float32 samples (n, 240).
PyObject* GenerateBatch(PyObject* self, PyObject* const objects[4], PyObject* contexts) {
  if (ModelBlock(self) == nullptr) return nullptr;
  const Py_ssize_t n = PyTuple_GET_SIZE(contexts);
  WaveformInputs in;
  if (!in.Convert(objects, n, true)) return nullptr;
  std::vector<std::int32_t> bins(static_cast<std::size_t>(n));
  if (!in.CopyBins(bins.data())) return nullptr;
  npy_intp shape[2] = {n, CORVINA_OUT_HOP_LENGTH};
  PyObject* output = PyArray_SimpleNew(2, shape, NPY_FLOAT32);
  if (output == nullptr) return nullptr;
  BatchClaim claim(self, contexts);
  if (!claim) {
    Py_DECREF(output);
    return nullptr;
  }
  const auto phone = Rows<const float>(in.phone);
  const auto pitch = Rows<const std::int32_t>(bins.data(), n, 1);
  const auto features = Rows<const float>(in.pitch_features);
  const auto speaker = Rows<const float>(in.speaker_embeddings);
  const auto samples = Rows<float>(output);
  const auto blocks = claim.contexts<CorvinaWaveformContext1>();
  Py_BEGIN_ALLOW_THREADS
  Corvina_GenerateWaveformN(claim.model<CorvinaWaveformGenerator>(), static_cast<std::int32_t>(n), phone.data(),
                            pitch.data(), features.data(), speaker.data(), samples.data(), blocks.data());
  Py_END_ALLOW_THREADS
  return output;
}

}  // namespace

PyObject* WaveformGeneratorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  static const char* keywords[] = {"phone", "quantized_pitch", "pitch_features", "speaker_embeddings", "context",
                                   nullptr};
  PyObject* objects[4] = {};
  PyObject* context_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOOOO!", const_cast<char**>(keywords), &objects[0], &objects[1],
                                   &objects[2], &objects[3], &WaveformContextType, &context_object))
    return nullptr;
  if (ContextBlock(context_object) == nullptr) return nullptr;
  if (ModelBlock(self) == nullptr) return nullptr;
  const npy_intp length = reinterpret_cast<ContextObject*>(context_object)->length;

  WaveformInputs in;
  if (!in.Convert(objects, length, false)) return nullptr;
  std::int32_t bin;  // a usable context has length 1
  if (!in.CopyBins(&bin)) return nullptr;

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

PyObject* WaveformGeneratorBatch(PyObject* self, PyObject* args, PyObject* kwargs) {
  static const char* keywords[] = {"phone", "quantized_pitch", "pitch_features", "speaker_embeddings", "contexts",
                                   nullptr};
  PyObject* objects[4] = {};
  PyObject* contexts_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOOOO", const_cast<char**>(keywords), &objects[0], &objects[1],
                                   &objects[2], &objects[3], &contexts_object))
    return nullptr;
  PyObject* contexts = BatchContexts(contexts_object, &WaveformContextType);
  if (contexts == nullptr) return nullptr;
  PyObject* output = GenerateBatch(self, objects, contexts);
  Py_DECREF(contexts);
  return output;
}

}  // namespace corvina
