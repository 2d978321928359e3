// read_speaker_embeddings(path) -> float32 array (n, 256).
#include "../engine/corvina.h"
#include "../waveform/speaker_embeddings.h"
#include "objects.h"

namespace corvina {

PyObject* ReadSpeakerEmbeddings(PyObject*, PyObject* args) {
  PyObject* path_bytes = nullptr;
  if (!PyArg_ParseTuple(args, "O&", PyUnicode_FSConverter, &path_bytes)) return nullptr;
  const char* path = PyBytes_AS_STRING(path_bytes);  // kept alive until both reads are done
  std::int32_t count = 0;
  // An unreadable file, or one whose size is not a multiple of 512, gives no rows.
  if (Corvina_ReadNSpeakers(path, &count) != 0) count = 0;
  npy_intp shape[2] = {count, CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS};
  PyObject* result = PyArray_ZEROS(2, shape, NPY_FLOAT32, 0);
  if (result != nullptr && count > 0) {
    // Bounded by the count, so a file that grows in between cannot overrun the array.
    ReadSpeakerEmbeddingsBounded(path, static_cast<float*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(result))),
                                 count);
  }
  Py_DECREF(path_bytes);
  return result;
}

}  // namespace corvina
