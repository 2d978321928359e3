// One-frame model calls (the types' __call__). Each model adds its own in a
// file of its own; a type without one is not callable yet.
#pragma once
#include "python_api.h"

namespace corvina {

PyObject* PhoneExtractorCall(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* PitchEstimatorCall(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* WaveformGeneratorCall(PyObject* self, PyObject* args, PyObject* kwargs);

}  // namespace corvina
