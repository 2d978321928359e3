// Module start-up: processor check, numpy binding, types and constants.
// Compiled without vector ISA flags.
#define CORVINA_BINDS_NUMPY
#include "../engine/corvina.h"
#include "../engine/kernel_set.h"
#include "objects.h"

namespace {

PyMethodDef kMethods[] = {
    {"read_speaker_embeddings", corvina::ReadSpeakerEmbeddings, METH_VARARGS, "Read speaker embeddings from file."},
    {nullptr, nullptr, 0, nullptr}};

const char kModuleDoc[] =
    "Real-time voice conversion, one 10 ms frame at a time: PhoneExtractor and\n"
    "PitchEstimator take 160 samples of 16 kHz speech per frame, WaveformGenerator\n"
    "turns their outputs and a speaker embedding into 240 samples of 24 kHz\n"
    "speech. Each stream keeps its history in its own context objects.";

PyModuleDef kModule = {PyModuleDef_HEAD_INIT, "corvina", kModuleDoc, -1, kMethods, nullptr, nullptr, nullptr, nullptr};

struct NamedType {
  const char* name;
  PyTypeObject* type;
};

const NamedType kTypes[] = {
    {"PhoneContext", &corvina::PhoneContextType},       {"PhoneExtractor", &corvina::PhoneExtractorType},
    {"PitchContext", &corvina::PitchContextType},       {"PitchEstimator", &corvina::PitchEstimatorType},
    {"WaveformContext", &corvina::WaveformContextType}, {"WaveformGenerator", &corvina::WaveformGeneratorType},
};

const struct {
  const char* name;
  long value;
} kConstants[] = {
    {"IN_HOP_LENGTH", CORVINA_IN_HOP_LENGTH},
    {"OUT_HOP_LENGTH", CORVINA_OUT_HOP_LENGTH},
    {"PHONE_CHANNELS", CORVINA_PHONE_CHANNELS},
    {"PITCH_BINS", CORVINA_PITCH_BINS},
    {"PITCH_BINS_PER_OCTAVE", CORVINA_PITCH_BINS_PER_OCTAVE},
    {"WAVEFORM_GENERATOR_HIDDEN_CHANNELS", CORVINA_WAVEFORM_GENERATOR_HIDDEN_CHANNELS},
    {"IN_SAMPLE_RATE", CORVINA_IN_SAMPLE_RATE},
    {"OUT_SAMPLE_RATE", CORVINA_OUT_SAMPLE_RATE},
    // The exact sizes of the parameter files and of a speaker row, for the
    // host package's checks before a read (private: not part of the surface).
    {"_PHONE_EXTRACTOR_PARAMETER_BYTES", CORVINA_PHONE_EXTRACTOR_PARAMETER_BYTES},
    {"_PITCH_ESTIMATOR_PARAMETER_BYTES", CORVINA_PITCH_ESTIMATOR_PARAMETER_BYTES},
    {"_WAVEFORM_GENERATOR_PARAMETER_BYTES", CORVINA_WAVEFORM_GENERATOR_PARAMETER_BYTES},
    {"_SPEAKER_EMBEDDING_BYTES", CORVINA_SPEAKER_EMBEDDING_BYTES},
};

}  // namespace

PyMODINIT_FUNC PyInit_corvina(void) {
  if (!corvina::ProcessorSupported()) {
    PyErr_SetString(PyExc_ImportError, "Unsupported CPU.");
    return nullptr;
  }
  // numpy's own import routine: module path, capsule, ABI and feature checks.
  if (_import_array() < 0) {
    PyErr_Print();
    PyErr_SetString(PyExc_ImportError, "numpy.core.multiarray failed to import");
    return nullptr;
  }
  corvina::DefineTypes();
  for (const NamedType& entry : kTypes)
    if (PyType_Ready(entry.type) < 0) return nullptr;

  PyObject* module = PyModule_Create2(&kModule, 1013);
  if (module == nullptr) return nullptr;
  for (const NamedType& entry : kTypes) {
    Py_INCREF(entry.type);
    if (PyModule_AddObject(module, entry.name, reinterpret_cast<PyObject*>(entry.type)) < 0) {
      Py_DECREF(entry.type);
      Py_DECREF(module);
      return nullptr;
    }
  }
  for (const auto& constant : kConstants)
    if (PyModule_AddIntConstant(module, constant.name, constant.value) < 0) return nullptr;
  if (PyModule_AddStringConstant(module, "__version__", CORVINA_VERSION) < 0) return nullptr;
  // The kernel set chosen at load, for the host tools' reports (private).
  if (PyModule_AddStringConstant(module, "_KERNEL_SET", corvina::KernelSetName(corvina::ActiveKernelSet())) < 0)
    return nullptr;
  return module;
}
