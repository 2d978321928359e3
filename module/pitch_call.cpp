// PitchEstimator.__call__(input, context) -> (quantized_pitch, pitch_features),
// and PitchEstimator.batch(input, contexts) -> the same with n rows.
#include "../engine/corvina.h"
#include "batch_claims.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

namespace {

// The result of `rows` frames: (quantized_pitch int32 (rows,), pitch_features
// float32 (rows, 4)), or null with the error set.
PyObject* NewPitchResult(npy_intp rows) {
  npy_intp pitch_shape[1] = {rows};
  npy_intp feature_shape[2] = {rows, CORVINA_PITCH_FEATURES};
  PyObject* quantized_pitch = PyArray_SimpleNew(1, pitch_shape, NPY_INT32);
  PyObject* pitch_features = quantized_pitch ? PyArray_SimpleNew(2, feature_shape, NPY_FLOAT32) : nullptr;
  if (pitch_features == nullptr) {
    Py_XDECREF(quantized_pitch);
    return nullptr;
  }
  return Py_BuildValue("(NN)", quantized_pitch, pitch_features);
}

template <typename T>
T* ResultData(PyObject* result, int item) {
  return static_cast<T*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(PyTuple_GET_ITEM(result, item))));
}

}  // namespace

PyObject* PitchEstimatorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameCall call;
  if (!call.Parse(self, args, kwargs, &PitchContextType)) return nullptr;
  PyObject* result = NewPitchResult(call.length);
  if (result == nullptr) return nullptr;
  EngineClaim claim(self, call.context);
  if (!claim) {
    Py_DECREF(result);
    return nullptr;
  }
  auto* bin = ResultData<std::int32_t>(result, 0);
  auto* features = ResultData<float>(result, 1);
  Py_BEGIN_ALLOW_THREADS
  Corvina_EstimatePitch1(static_cast<const CorvinaPitchEstimator*>(claim.model_block()), call.samples(), bin,
                         features, static_cast<CorvinaPitchContext1*>(claim.context_block()));
  Py_END_ALLOW_THREADS
  return result;
}

PyObject* PitchEstimatorBatch(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameBatch batch;
  if (!batch.Parse(self, args, kwargs, &PitchContextType)) return nullptr;
  PyObject* result = NewPitchResult(batch.n);
  if (result == nullptr) return nullptr;
  BatchClaim claim(self, batch.contexts);
  if (!claim) {
    Py_DECREF(result);
    return nullptr;
  }
  const auto inputs = Rows<const float>(batch.input);
  const auto bins = Rows(ResultData<std::int32_t>(result, 0), batch.n, 1);
  const auto features = Rows(ResultData<float>(result, 1), batch.n, CORVINA_PITCH_FEATURES);
  const auto contexts = claim.contexts<CorvinaPitchContext1>();
  Py_BEGIN_ALLOW_THREADS
  Corvina_EstimatePitchN(claim.model<CorvinaPitchEstimator>(), static_cast<std::int32_t>(batch.n), inputs.data(),
                         bins.data(), features.data(), contexts.data());
  Py_END_ALLOW_THREADS
  return result;
}

}  // namespace corvina
