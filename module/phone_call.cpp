// PhoneExtractor.__call__(input, context) -> float32 array (length, 256), and
// PhoneExtractor.batch(input, contexts) -> float32 array (n, 256).
#include "../engine/corvina.h"
#include "batch_claims.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

PyObject* PhoneExtractorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  static const char* keywords[] = {"input", "context", nullptr};
  PyObject* input_object = nullptr;
  PyObject* context_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO!", const_cast<char**>(keywords), &input_object,
                                   &PhoneContextType, &context_object))
    return nullptr;
  if (ContextBlock(context_object) == nullptr) return nullptr;
  if (ModelBlock(self) == nullptr) return nullptr;
  const npy_intp length = reinterpret_cast<ContextObject*>(context_object)->length;

  PyArrayObject* input = AsFloat32Array(input_object, 1);
  if (input == nullptr) return nullptr;
  if (PyArray_DIM(input, 0) != length * CORVINA_IN_HOP_LENGTH) {
    Py_DECREF(input);
    PyErr_SetString(PyExc_ValueError, "len(input) != length * IN_HOP_LENGTH");
    return nullptr;
  }
  npy_intp shape[2] = {length, CORVINA_PHONE_CHANNELS};
  PyObject* phone = PyArray_SimpleNew(2, shape, NPY_FLOAT32);
  if (phone == nullptr) {
    Py_DECREF(input);
    return nullptr;
  }
  {
    EngineClaim claim(self, context_object);
    if (!claim) {
      Py_DECREF(input);
      Py_DECREF(phone);
      return nullptr;
    }
    const float* samples = static_cast<const float*>(PyArray_DATA(input));
    float* features = static_cast<float*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(phone)));
    Py_BEGIN_ALLOW_THREADS
    Corvina_ExtractPhone1(static_cast<const CorvinaPhoneExtractor*>(claim.model_block()), samples, features,
                          static_cast<CorvinaPhoneContext1*>(claim.context_block()));
    Py_END_ALLOW_THREADS
  }
  Py_DECREF(input);
  if (PyErr_Occurred()) {
    Py_DECREF(phone);
    return nullptr;
  }
  return phone;
}

PyObject* PhoneExtractorBatch(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameBatch batch;
  if (!batch.Parse(self, args, kwargs, &PhoneContextType)) return nullptr;
  npy_intp shape[2] = {batch.n, CORVINA_PHONE_CHANNELS};
  PyObject* phone = PyArray_SimpleNew(2, shape, NPY_FLOAT32);
  if (phone == nullptr) return nullptr;
  BatchClaim claim(self, batch.contexts);
  if (!claim) {
    Py_DECREF(phone);
    return nullptr;
  }
  const auto inputs = Rows<const float>(batch.input);
  const auto outputs = Rows<float>(phone);
  const auto contexts = claim.contexts<CorvinaPhoneContext1>();
  Py_BEGIN_ALLOW_THREADS
  Corvina_ExtractPhoneN(claim.model<CorvinaPhoneExtractor>(), static_cast<std::int32_t>(batch.n), inputs.data(),
                        outputs.data(), contexts.data());
  Py_END_ALLOW_THREADS
  return phone;
}

}  // namespace corvina
