// The six object types. Each model object owns one model block, each context
// object one context block; the engine's Create/Destroy functions manage them.
#include <new>

#include "../engine/corvina.h"
#include "calls.h"
#include "engine_claim.h"
#include "objects.h"

namespace corvina {

PyTypeObject PhoneContextType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject PhoneExtractorType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject PitchContextType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject PitchEstimatorType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject WaveformContextType = {PyVarObject_HEAD_INIT(nullptr, 0)};
PyTypeObject WaveformGeneratorType = {PyVarObject_HEAD_INIT(nullptr, 0)};

namespace {

// What differs between the three models: their engine functions and types.
struct Phone {
  using Model = CorvinaPhoneExtractor;
  using Context = CorvinaPhoneContext1;
  static Model* Create() { return Corvina_CreatePhoneExtractor(); }
  static void Destroy(Model* m) { Corvina_DestroyPhoneExtractor(m); }
  static int Read(Model* m, const char* path) { return Corvina_ReadPhoneExtractorParameters(m, path); }
  static Context* CreateContext() { return Corvina_CreatePhoneContext1(); }
  static void DestroyContext(Context* c) { Corvina_DestroyPhoneContext1(c); }
  static PyTypeObject* ContextType() { return &PhoneContextType; }
  static constexpr PyCFunctionWithKeywords kBatch = PhoneExtractorBatch;
  static constexpr const char* kModelDoc =
      "PhoneExtractor(): the phone extractor, empty until read_parameters(path).\n\n"
      "model(input, context) -> float32 array (1, 256): one frame of 160 samples at\n"
      "16 kHz to 256 phone features. One model serves any number of streams and\n"
      "threads; each stream has its own PhoneContext.";
  static constexpr const char* kContextDoc =
      "PhoneContext(1): one stream's history for a PhoneExtractor, zero at\n"
      "creation. Used by one call at a time.";
  static constexpr const char* kBatchDoc =
      "batch(input, contexts) -> float32 array (n, 256)\n\n"
      "One frame of n streams: input (n, 160) holds a frame per stream, contexts\n"
      "n distinct PhoneContext objects of length 1. Row i is what stream i's own\n"
      "call gives.";
};

struct Pitch {
  using Model = CorvinaPitchEstimator;
  using Context = CorvinaPitchContext1;
  static Model* Create() { return Corvina_CreatePitchEstimator(); }
  static void Destroy(Model* m) { Corvina_DestroyPitchEstimator(m); }
  static int Read(Model* m, const char* path) { return Corvina_ReadPitchEstimatorParameters(m, path); }
  static Context* CreateContext() { return Corvina_CreatePitchContext1(); }
  static void DestroyContext(Context* c) { Corvina_DestroyPitchContext1(c); }
  static PyTypeObject* ContextType() { return &PitchContextType; }
  static constexpr PyCFunctionWithKeywords kBatch = PitchEstimatorBatch;
  static constexpr const char* kModelDoc =
      "PitchEstimator(): the pitch estimator, empty until read_parameters(path).\n\n"
      "model(input, context) -> (int32 array (1,), float32 array (1, 4)): one frame of\n"
      "160 samples at 16 kHz to a pitch bin in 1..383 and four pitch features\n"
      "(loudness, probability of bin 0, lower- and upper-octave ratios).";
  static constexpr const char* kContextDoc =
      "PitchContext(1): one stream's history for a PitchEstimator, zero at\n"
      "creation. Used by one call at a time.";
  static constexpr const char* kBatchDoc =
      "batch(input, contexts) -> (int32 array (n,), float32 array (n, 4))\n\n"
      "One frame of n streams: input (n, 160) holds a frame per stream, contexts\n"
      "n distinct PitchContext objects of length 1. Row i is what stream i's own\n"
      "call gives.";
};

struct Waveform {
  using Model = CorvinaWaveformGenerator;
  using Context = CorvinaWaveformContext1;
  static Model* Create() { return Corvina_CreateWaveformGenerator(); }
  static void Destroy(Model* m) { Corvina_DestroyWaveformGenerator(m); }
  static int Read(Model* m, const char* path) { return Corvina_ReadWaveformGeneratorParameters(m, path); }
  static Context* CreateContext() { return Corvina_CreateWaveformContext1(); }
  static void DestroyContext(Context* c) { Corvina_DestroyWaveformContext1(c); }
  static PyTypeObject* ContextType() { return &WaveformContextType; }
  static constexpr PyCFunctionWithKeywords kBatch = WaveformGeneratorBatch;
  static constexpr const char* kModelDoc =
      "WaveformGenerator(): the waveform generator, empty until read_parameters(path).\n\n"
      "model(phone, quantized_pitch, pitch_features, speaker_embeddings, context)\n"
      "    -> float32 array (1, 240): one frame of phone features (1, 256), a pitch\n"
      "bin (1,), pitch features (1, 4) and a speaker embedding (1, 256) to 240\n"
      "samples at 24 kHz.";
  static constexpr const char* kContextDoc =
      "WaveformContext(1): one stream's history for a WaveformGenerator,\n"
      "zero at creation. Used by one call at a time.";
  static constexpr const char* kBatchDoc =
      "batch(phone, quantized_pitch, pitch_features, speaker_embeddings, contexts)\n"
      "    -> float32 array (n, 240)\n\n"
      "One frame of n streams: phone (n, 256), quantized_pitch (n,) in\n"
      "range(PITCH_BINS), pitch_features (n, 4) and speaker_embeddings (n, 256)\n"
      "hold a row per stream, contexts n distinct WaveformContext objects of\n"
      "length 1. Row i is what stream i's own call gives.";
};

template <typename Kind>
typename Kind::Model* BlockOf(ModelObject* self) {
  return static_cast<typename Kind::Model*>(self->model);
}

// Arguments are ignored; calling it again frees the block it replaces, so it
// is refused while a call on another thread is using that block.
template <typename Kind>
int ModelInit(PyObject* self, PyObject*, PyObject*) {
  if (!ModelIsIdle(self)) return -1;
  auto* object = reinterpret_cast<ModelObject*>(self);
  typename Kind::Model* old = BlockOf<Kind>(object);
  object->model = Kind::Create();
  Kind::Destroy(old);
  return 0;
}

template <typename Kind>
void ModelDealloc(PyObject* self) {
  Kind::Destroy(BlockOf<Kind>(reinterpret_cast<ModelObject*>(self)));
  Py_TYPE(self)->tp_free(self);
}

template <typename Kind>
PyObject* ReadParameters(PyObject* self, PyObject* args) {
  PyObject* path = nullptr;
  if (!PyArg_ParseTuple(args, "O&", PyUnicode_FSConverter, &path)) return nullptr;
  // Checked after the path conversion, which may run Python code. The lock is
  // held while reading, so no call can start on the model meanwhile.
  void* model = ModelIsIdle(self) ? ModelBlock(self) : nullptr;
  if (model != nullptr) Kind::Read(static_cast<typename Kind::Model*>(model), PyBytes_AS_STRING(path));
  Py_DECREF(path);
  if (model == nullptr) return nullptr;
  Py_RETURN_NONE;
}

template <typename Kind>
PyObject* NewContext(PyObject*, PyObject* args) {
  int length;
  if (!PyArg_ParseTuple(args, "i", &length)) return nullptr;
  if (length != 1) {
    PyErr_SetString(PyExc_ValueError, "length != 1");
    return nullptr;
  }
  ContextObject* context = PyObject_New(ContextObject, Kind::ContextType());
  if (context == nullptr) return nullptr;
  context->length = 1;
  context->context = Kind::CreateContext();
  new (&context->in_use) std::atomic<bool>(false);  // this allocation is not zero-filled
  return reinterpret_cast<PyObject*>(context);
}

// Any length is accepted; only length 1 gets an engine block. Calling it again
// frees the block it replaces, so it is refused while a call is using it.
template <typename Kind>
int ContextInit(PyObject* self, PyObject* args, PyObject*) {
  int length;
  if (!PyArg_ParseTuple(args, "i", &length)) return -1;
  if (!ContextIsIdle(self)) return -1;
  auto* object = reinterpret_cast<ContextObject*>(self);
  auto* old = static_cast<typename Kind::Context*>(object->context);
  object->length = length;
  object->context = length == 1 ? Kind::CreateContext() : nullptr;
  Kind::DestroyContext(old);
  return 0;
}

template <typename Kind>
void ContextDealloc(PyObject* self) {
  Kind::DestroyContext(static_cast<typename Kind::Context*>(reinterpret_cast<ContextObject*>(self)->context));
  Py_TYPE(self)->tp_free(self);
}

template <typename Kind>
PyMethodDef* ModelMethods() {
  static PyMethodDef methods[] = {
      {"read_parameters", ReadParameters<Kind>, METH_VARARGS, "Read parameters from file."},
      {"new_context", NewContext<Kind>, METH_VARARGS, "Create new context."},
      {"batch", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Kind::kBatch)),
       METH_VARARGS | METH_KEYWORDS, Kind::kBatchDoc},
      {nullptr, nullptr, 0, nullptr}};
  return methods;
}

void DefineBase(PyTypeObject* type, const char* name, Py_ssize_t size) {
  type->tp_name = name;
  type->tp_basicsize = size;
  type->tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE;
  type->tp_new = PyType_GenericNew;
}

template <typename Kind>
void DefineModel(PyTypeObject* type, const char* name, ternaryfunc call) {
  DefineBase(type, name, sizeof(ModelObject));
  type->tp_doc = Kind::kModelDoc;
  type->tp_init = ModelInit<Kind>;
  type->tp_dealloc = ModelDealloc<Kind>;
  type->tp_methods = ModelMethods<Kind>();
  type->tp_call = call;
}

template <typename Kind>
void DefineContext(PyTypeObject* type, const char* name) {
  DefineBase(type, name, sizeof(ContextObject));
  type->tp_doc = Kind::kContextDoc;
  type->tp_init = ContextInit<Kind>;
  type->tp_dealloc = ContextDealloc<Kind>;
}

}  // namespace

void DefineTypes() {
  DefineContext<Phone>(&PhoneContextType, "corvina.PhoneContext");
  DefineModel<Phone>(&PhoneExtractorType, "corvina.PhoneExtractor", PhoneExtractorCall);
  DefineContext<Pitch>(&PitchContextType, "corvina.PitchContext");
  DefineModel<Pitch>(&PitchEstimatorType, "corvina.PitchEstimator", PitchEstimatorCall);
  DefineContext<Waveform>(&WaveformContextType, "corvina.WaveformContext");
  DefineModel<Waveform>(&WaveformGeneratorType, "corvina.WaveformGenerator", WaveformGeneratorCall);
}

void* ContextBlock(PyObject* context) {
  auto* object = reinterpret_cast<ContextObject*>(context);
  if (object->length != 1 || object->context == nullptr) {
    PyErr_SetString(PyExc_ValueError, "length != 1");
    return nullptr;
  }
  return object->context;
}

void* ModelBlock(PyObject* model) {
  void* block = reinterpret_cast<ModelObject*>(model)->model;
  if (block == nullptr) PyErr_SetString(PyExc_RuntimeError, "model object was not initialised");
  return block;
}

}  // namespace corvina
