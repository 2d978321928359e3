// Engine calls run without the interpreter lock, so a model or context object
// can be touched from Python while its block is in use. A claim marks both for
// the length of one call: a second call on the same context, re-initialising
// either object and reading parameters into the model are refused with
// RuntimeError instead of racing or freeing a block under the call.
#pragma once
#include "objects.h"

namespace corvina {

class EngineClaim {
 public:
  // Call with the lock held, after every argument is converted. The blocks are
  // fetched again here because a conversion may run Python code (an
  // __array__ method, another thread) that re-initialised either object.
  // An empty claim has an exception set.
  EngineClaim(PyObject* model, PyObject* context);
  ~EngineClaim();
  EngineClaim(const EngineClaim&) = delete;
  EngineClaim& operator=(const EngineClaim&) = delete;

  explicit operator bool() const { return model_ != nullptr; }
  void* model_block() const { return model_block_; }
  void* context_block() const { return context_block_; }

 private:
  ModelObject* model_ = nullptr;      // set once its running count was raised
  ContextObject* context_ = nullptr;  // set once its flag is ours
  void* model_block_ = nullptr;
  void* context_block_ = nullptr;
};

// False with RuntimeError set while an engine call uses the object's block.
bool ModelIsIdle(PyObject* model);
bool ContextIsIdle(PyObject* context);

}  // namespace corvina
