#include "batch_claims.h"

#include <algorithm>

#include "../engine/corvina.h"

namespace corvina {

PyObject* BatchContexts(PyObject* contexts, PyTypeObject* type) {
  PyObject* tuple = PySequence_Tuple(contexts);
  if (tuple == nullptr) return nullptr;
  const Py_ssize_t n = PyTuple_GET_SIZE(tuple);
  std::vector<PyObject*> sorted(static_cast<std::size_t>(n));
  for (Py_ssize_t i = 0; i < n; ++i) {
    PyObject* item = sorted[i] = PyTuple_GET_ITEM(tuple, i);
    if (!PyObject_TypeCheck(item, type)) {
      PyErr_Format(PyExc_TypeError, "contexts[%zd] must be %s, not %.200s", i, type->tp_name,
                   Py_TYPE(item)->tp_name);
      Py_DECREF(tuple);
      return nullptr;
    }
    if (ContextBlock(item) == nullptr) {
      Py_DECREF(tuple);
      return nullptr;
    }
  }
  // Two streams of a batch must never share history.
  std::sort(sorted.begin(), sorted.end());
  if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
    PyErr_SetString(PyExc_ValueError, "contexts are not distinct");
    Py_DECREF(tuple);
    return nullptr;
  }
  return tuple;
}

bool FrameCall::Parse(PyObject* model, PyObject* args, PyObject* kwargs, PyTypeObject* context_type) {
  static const char* keywords[] = {"input", "context", nullptr};
  PyObject* input_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO!", const_cast<char**>(keywords), &input_object, context_type,
                                   &context))
    return false;
  if (ContextBlock(context) == nullptr || ModelBlock(model) == nullptr) return false;
  length = reinterpret_cast<ContextObject*>(context)->length;
  if (!(input = AsFloat32Array(input_object, 1))) return false;
  if (PyArray_DIM(input, 0) == length * CORVINA_IN_HOP_LENGTH) return true;
  PyErr_SetString(PyExc_ValueError, "len(input) != length * IN_HOP_LENGTH");
  return false;
}

bool FrameBatch::Parse(PyObject* model, PyObject* args, PyObject* kwargs, PyTypeObject* context_type) {
  static const char* keywords[] = {"input", "contexts", nullptr};
  PyObject* input_object = nullptr;
  PyObject* contexts_object = nullptr;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO", const_cast<char**>(keywords), &input_object,
                                   &contexts_object))
    return false;
  if (!(contexts = BatchContexts(contexts_object, context_type))) return false;
  if (ModelBlock(model) == nullptr) return false;
  n = PyTuple_GET_SIZE(contexts);
  if (!(input = AsFloat32Array(input_object, 2))) return false;
  const char* message = nullptr;
  if (PyArray_DIM(input, 0) != n) message = "len(contexts) != len(input)";
  else if (PyArray_DIM(input, 1) != CORVINA_IN_HOP_LENGTH) message = "input.shape[1] != IN_HOP_LENGTH";
  if (message != nullptr) PyErr_SetString(PyExc_ValueError, message);
  return message == nullptr;
}

BatchClaim::BatchClaim(PyObject* model, PyObject* contexts) {
  const Py_ssize_t n = PyTuple_GET_SIZE(contexts);
  for (Py_ssize_t i = 0; i < n; ++i) {
    const EngineClaim& claim = claims_.emplace_back(model, PyTuple_GET_ITEM(contexts, i));
    if (!claim) return;
    blocks_.push_back(claim.context_block());
  }
  // An empty batch runs nothing, but still needs a usable model object.
  model_block_ = n > 0 ? claims_.front().model_block() : ModelBlock(model);
}

}  // namespace corvina
