#include "engine_claim.h"

namespace corvina {

namespace {
constexpr const char* kContextBusy = "context is in use by another call";
constexpr const char* kModelBusy = "model is in use by a running call";
}  // namespace

EngineClaim::EngineClaim(PyObject* model, PyObject* context) {
  auto* c = reinterpret_cast<ContextObject*>(context);
  if (c->in_use.exchange(true, std::memory_order_acquire)) {
    PyErr_SetString(PyExc_RuntimeError, kContextBusy);
    return;
  }
  context_ = c;
  context_block_ = ContextBlock(context);
  if (context_block_ == nullptr) return;
  model_block_ = ModelBlock(model);
  if (model_block_ == nullptr) return;
  model_ = reinterpret_cast<ModelObject*>(model);
  model_->running.fetch_add(1, std::memory_order_acquire);
}

EngineClaim::~EngineClaim() {
  if (model_ != nullptr) model_->running.fetch_sub(1, std::memory_order_release);
  if (context_ != nullptr) context_->in_use.store(false, std::memory_order_release);
}

bool ModelIsIdle(PyObject* model) {
  if (reinterpret_cast<ModelObject*>(model)->running.load(std::memory_order_acquire) == 0) return true;
  PyErr_SetString(PyExc_RuntimeError, kModelBusy);
  return false;
}

bool ContextIsIdle(PyObject* context) {
  if (!reinterpret_cast<ContextObject*>(context)->in_use.load(std::memory_order_acquire)) return true;
  PyErr_SetString(PyExc_RuntimeError, kContextBusy);
  return false;
}

}  // namespace corvina
