// PitchEstimator.__call__(input, context) -> (quantized_pitch, pitch_features),
// and PitchEstimator.batch(input, contexts) -> the same with n rows.
#include "../engine/corvina.h"
#include "batch_claims.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

PyObject* PitchEstimatorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameCall call;
  if (!call.Parse(self, args, kwargs, &PitchContextType)) return nullptr;
  npy_intp pitch_shape[1] = {call.length};
  npy_intp feature_shape[2] = {call.length, CORVINA_PITCH_FEATURES};
  PyObject* quantized_pitch = PyArray_SimpleNew(1, pitch_shape, NPY_INT32);
  PyObject* pitch_features = quantized_pitch ? PyArray_SimpleNew(2, feature_shape, NPY_FLOAT32) : nullptr;
  if (pitch_features == nullptr) {
    Py_XDECREF(quantized_pitch);
    return nullptr;
  }
  EngineClaim claim(self, call.context);
  if (!claim) {
    Py_DECREF(quantized_pitch);
    Py_DECREF(pitch_features);
    return nullptr;
  }
  auto* bin = static_cast<std::int32_t*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(quantized_pitch)));
  auto* features = static_cast<float*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(pitch_features)));
  Py_BEGIN_ALLOW_THREADS
  Corvina_EstimatePitch1(static_cast<const CorvinaPitchEstimator*>(claim.model_block()), call.samples(), bin,
                         features, static_cast<CorvinaPitchContext1*>(claim.context_block()));
  Py_END_ALLOW_THREADS
  return Py_BuildValue("(NN)", quantized_pitch, pitch_features);
}

PyObject* PitchEstimatorBatch(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameBatch batch;
  if (!batch.Parse(self, args, kwargs, &PitchContextType)) return nullptr;
  npy_intp pitch_shape[1] = {batch.n};
  npy_intp feature_shape[2] = {batch.n, CORVINA_PITCH_FEATURES};
  PyObject* quantized_pitch = PyArray_SimpleNew(1, pitch_shape, NPY_INT32);
  PyObject* pitch_features = quantized_pitch ? PyArray_SimpleNew(2, feature_shape, NPY_FLOAT32) : nullptr;
  if (pitch_features == nullptr) {
    Py_XDECREF(quantized_pitch);
    return nullptr;
  }
  BatchClaim claim(self, batch.contexts);
  if (!claim) {
    Py_DECREF(quantized_pitch);
    Py_DECREF(pitch_features);
    return nullptr;
  }
  const auto inputs = Rows<const float>(batch.input);
  const auto bins =
      Rows(static_cast<std::int32_t*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(quantized_pitch))), batch.n, 1);
  const auto features = Rows<float>(pitch_features);
  const auto contexts = claim.contexts<CorvinaPitchContext1>();
  Py_BEGIN_ALLOW_THREADS
  Corvina_EstimatePitchN(claim.model<CorvinaPitchEstimator>(), static_cast<std::int32_t>(batch.n), inputs.data(),
                         bins.data(), features.data(), contexts.data());
  Py_END_ALLOW_THREADS
  return Py_BuildValue("(NN)", quantized_pitch, pitch_features);
}

}  // namespace corvina
