// The interpreter's and numpy's C interfaces, included the same way by every
// file of the module. numpy's function table is bound once, at import.
#pragma once
#define PY_SSIZE_T_CLEAN
#include <Python.h>

// Built against numpy 2 headers for the 1.19 interface, so one build imports
// under numpy 1.19 and later, 2.x included.
#define NPY_NO_DEPRECATED_API NPY_1_19_API_VERSION
#define NPY_TARGET_VERSION NPY_1_19_API_VERSION
#define PY_ARRAY_UNIQUE_SYMBOL corvina_ARRAY_API
#ifndef CORVINA_BINDS_NUMPY
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>
