// One-frame model calls (the types' __call__) and their batches over many
// streams (the types' batch method), each model's pair in a file of its own.
#pragma once
#include "python_api.h"

namespace corvina {

PyObject* PhoneExtractorCall(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* PitchEstimatorCall(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* WaveformGeneratorCall(PyObject* self, PyObject* args, PyObject* kwargs);

PyObject* PhoneExtractorBatch(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* PitchEstimatorBatch(PyObject* self, PyObject* args, PyObject* kwargs);
PyObject* WaveformGeneratorBatch(PyObject* self, PyObject* args, PyObject* kwargs);

}  // namespace corvina
