// The type of our methods: native callables that behave as Python functions do. They bind, can be marked abstract, take
// attributes, can be weakly referenced and pickled by name, and show a signature; calls cost no argument tuple.
#pragma once

#include "method.h"

namespace py {

void ready_function_type();

bool is_own_function(PyObject* object);

// The vector call of one of our functions, without the interpreter in between. Null with an error set when it fails.
PyObject* call_own_function(PyObject* function, PyObject* const* arguments, std::size_t flagged_count,
                            PyObject* keywords);

// A function for one row of a class's table. `class_name` is the first half of its __qualname__.
Object make_function(const Method& method, const char* class_name, Handle module_name);

} // namespace py
