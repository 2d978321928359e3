// PhoneExtractor.__call__(input, context) -> float32 array (length, 256), and
// PhoneExtractor.batch(input, contexts) -> float32 array (n, 256).
#include "../engine/corvina.h"
#include "batch_claims.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

PyObject* PhoneExtractorCall(PyObject* self, PyObject* args, PyObject* kwargs) {
  FrameCall call;
  if (!call.Parse(self, args, kwargs, &PhoneContextType)) return nullptr;
  npy_intp shape[2] = {call.length, CORVINA_PHONE_CHANNELS};
  PyObject* phone = PyArray_SimpleNew(2, shape, NPY_FLOAT32);
  if (phone == nullptr) return nullptr;
  EngineClaim claim(self, call.context);
  if (!claim) {
    Py_DECREF(phone);
    return nullptr;
  }
  float* features = static_cast<float*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(phone)));
  Py_BEGIN_ALLOW_THREADS
  Corvina_ExtractPhone1(static_cast<const CorvinaPhoneExtractor*>(claim.model_block()), call.samples(), features,
                        static_cast<CorvinaPhoneContext1*>(claim.context_block()));
  Py_END_ALLOW_THREADS
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
