// Python objects of the module: one model type and one context type per model.
#pragma once
#include <atomic>
#include <cstdint>

#include "python_api.h"

namespace corvina {

// The counters below start at zero because the type's allocator zero-fills
// the object; new_context, which allocates without zeroing, constructs them.
struct ModelObject {
  PyObject_HEAD
  void* model;                        // owned model block
  std::atomic<std::int32_t> running;  // engine calls using the block right now
};

struct ContextObject {
  PyObject_HEAD
  std::int32_t length;
  void* context;              // owned context block, present only when length is 1
  std::atomic<bool> in_use;   // set while one engine call owns the block
};

extern PyTypeObject PhoneContextType;
extern PyTypeObject PhoneExtractorType;
extern PyTypeObject PitchContextType;
extern PyTypeObject PitchEstimatorType;
extern PyTypeObject WaveformContextType;
extern PyTypeObject WaveformGeneratorType;

// Fills the six type objects; called once before they are readied.
void DefineTypes();

// The context's engine block, or null with ValueError "length != 1" set when
// the object has none (a length other than 1, or a subclass that skipped the
// base initialiser).
void* ContextBlock(PyObject* context);

// The model's engine block, or null with RuntimeError set when a subclass
// skipped the base initialiser.
void* ModelBlock(PyObject* model);

// numpy conversions to aligned, C-contiguous arrays of exactly `ndim`
// dimensions; any numeric input is cast. Null with numpy's exception on failure.
PyArrayObject* AsFloat32Array(PyObject* object, int ndim);
PyArrayObject* AsInt32Array(PyObject* object, int ndim);

// Module function read_speaker_embeddings(path).
PyObject* ReadSpeakerEmbeddings(PyObject* module, PyObject* args);

}  // namespace corvina
