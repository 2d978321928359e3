#include "objects.h"

namespace corvina {

static PyArrayObject* AsArray(PyObject* object, int type, int ndim) {
  PyObject* array = PyArray_FromAny(object, PyArray_DescrFromType(type), ndim, ndim,
                                    NPY_ARRAY_IN_ARRAY | NPY_ARRAY_FORCECAST, nullptr);
  return reinterpret_cast<PyArrayObject*>(array);
}

PyArrayObject* AsFloat32Array(PyObject* object, int ndim) { return AsArray(object, NPY_FLOAT32, ndim); }

PyArrayObject* AsInt32Array(PyObject* object, int ndim) { return AsArray(object, NPY_INT32, ndim); }

}  // namespace corvina
