// What a native function shows of a Python function. Most of it is a real Python function's: the shape, which has the
// same parameters and returns its arguments as a tuple. It is made when it is first needed.
#pragma once

#include "method.h"

namespace py {

struct FunctionObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    const Method* method;
    const char* class_name; // the first half of __qualname__
    PyObject* module;       // __module__, as long as there is no shape
    PyObject* names;        // tuple of the parameters' names; null: not needed yet
    PyObject* annotations;  // null: not needed yet; the shape may have others
    PyObject* shape;        // null: not needed yet
    PyObject* code;         // what the shape was made with
    PyObject* attributes;   // __dict__
    PyObject* weak_references;
    bool rebound;  // a program has changed the defaults: the shape binds the arguments
    bool replaced; // or the code: the shape is what is called
};

// The default of a parameter, borrowed; null where the parameter is required.
inline PyObject* value_of(Default default_value)
{
    static PyObject* const values[] = {nullptr, Py_None, Py_False, Py_True};
    static_assert(static_cast<int>(Default::none) == 1 && static_cast<int>(Default::true_) == 3);
    return values[static_cast<std::size_t>(default_value)];
}

bool has_parameter_names(FunctionObject* self); // makes `names`, if need be; false with an error set
Object shape_of(FunctionObject* self);

// Reads and writes of the attributes that the shape has for the function: those whose closure is their name.
PyObject* get_from_shape(PyObject* self, void* name);
int set_in_shape(PyObject* self, PyObject* value, void* name);

} // namespace py
