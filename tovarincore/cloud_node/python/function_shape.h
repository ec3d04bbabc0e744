// What a native function shows of a Python function: its layout, its names, its code object and its annotations.
#pragma once

#include "method.h"

namespace py {

struct FunctionObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    const Method* method;
    const char* class_name; // the first half of __qualname__
    PyObject* name;
    PyObject* qualname; // null: not asked for yet
    PyObject* module;
    PyObject* doc;         // null: not asked for yet
    PyObject* defaults;    // null: those of the row
    PyObject* annotations; // null: not asked for yet
    PyObject* names;       // tuple of the parameters' names; null: not needed yet
    PyObject* shape;       // a Python function with the same parameters; null: not needed yet
    PyObject* attributes;  // __dict__
    PyObject* weak_references;
};

// Each returns null with an error set when it fails.
PyObject* parameter_names(FunctionObject* self);  // borrowed
PyObject* qualified_name(FunctionObject* self);   // borrowed
PyObject* make_annotations(const Method& method); // new
PyObject* function_code(FunctionObject* self);    // new: a code object that inspect reads the signature from

// Calls a Python function of the same shape with arguments that do not fit: the TypeError is the interpreter's own.
PyObject* call_shape(FunctionObject* self, PyObject* const* arguments, std::size_t flagged_count, PyObject* keywords);

} // namespace py
