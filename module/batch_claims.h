// What the model calls share: the arguments of the calls that take frames of
// samples (one stream's or a batch's), checking a batch's contexts, claiming
// every block of a batch, and the pointer arrays the engine's ...N functions
// take.
#pragma once
#include <deque>
#include <vector>

#include "engine_claim.h"
#include "objects.h"

namespace corvina {

// The contexts argument as a new tuple (held, so conversions that run Python
// code cannot swap its items), or null with the error set: TypeError for an
// item that is not of `type`, ValueError "length != 1" for one without an
// engine block and "contexts are not distinct" for an object given twice.
PyObject* BatchContexts(PyObject* contexts, PyTypeObject* type);

// The arguments (input, context) of a one-stream call that takes samples (the
// phone extractor's and the pitch estimator's): the context and the model
// checked first, then the input converted to float32 and its length checked
// against the context's.
struct FrameCall {
  PyObject* context = nullptr;  // borrowed from the arguments
  PyArrayObject* input = nullptr;
  npy_intp length = 0;

  FrameCall() = default;
  FrameCall(const FrameCall&) = delete;
  FrameCall& operator=(const FrameCall&) = delete;
  ~FrameCall() { Py_XDECREF(input); }

  // False with the error set.
  bool Parse(PyObject* model, PyObject* args, PyObject* kwargs, PyTypeObject* context_type);
  const float* samples() const { return static_cast<const float*>(PyArray_DATA(input)); }
};

// The arguments (input, contexts) of a batch that takes frames of samples
// (the phone extractor's and the pitch estimator's): the contexts checked
// first, then the input converted to float32 (n, 160).
struct FrameBatch {
  PyObject* contexts = nullptr;  // tuple from BatchContexts
  PyArrayObject* input = nullptr;
  Py_ssize_t n = 0;

  FrameBatch() = default;
  FrameBatch(const FrameBatch&) = delete;
  FrameBatch& operator=(const FrameBatch&) = delete;
  ~FrameBatch() {
    Py_XDECREF(input);
    Py_XDECREF(contexts);
  }

  // False with the error set.
  bool Parse(PyObject* model, PyObject* args, PyObject* kwargs, PyTypeObject* context_type);
};

// One EngineClaim per context of the batch, taken with the lock held after
// every argument is converted. A context in use by another call, or changed by
// a conversion, leaves the batch empty with the exception set; the claims
// already taken are released with the batch.
class BatchClaim {
 public:
  BatchClaim(PyObject* model, PyObject* contexts);
  BatchClaim(const BatchClaim&) = delete;
  BatchClaim& operator=(const BatchClaim&) = delete;

  explicit operator bool() const { return model_block_ != nullptr; }

  template <typename Model>
  const Model* model() const {
    return static_cast<const Model*>(model_block_);
  }

  // The context blocks in batch order, typed for the engine call.
  template <typename Context>
  std::vector<Context*> contexts() const {
    std::vector<Context*> typed;
    typed.reserve(blocks_.size());
    for (void* block : blocks_) typed.push_back(static_cast<Context*>(block));
    return typed;
  }

 private:
  std::deque<EngineClaim> claims_;  // a deque: claims cannot move
  std::vector<void*> blocks_;
  void* model_block_ = nullptr;
};

// Pointers to `rows` rows of `width` elements from `data` on.
template <typename T>
std::vector<T*> Rows(T* data, npy_intp rows, npy_intp width) {
  std::vector<T*> pointers(static_cast<std::size_t>(rows));
  for (npy_intp i = 0; i < rows; ++i) pointers[i] = data + i * width;
  return pointers;
}

// Pointers to the rows of a C-contiguous array of two dimensions.
template <typename T>
std::vector<T*> Rows(PyArrayObject* array) {
  return Rows(static_cast<T*>(PyArray_DATA(array)), PyArray_DIM(array, 0), PyArray_DIM(array, 1));
}

template <typename T>
std::vector<T*> Rows(PyObject* array) {
  return Rows<T>(reinterpret_cast<PyArrayObject*>(array));
}

}  // namespace corvina
