// What the files of the test module share: entries that call a C++ function of Handles.
#pragma once

#include "python/all.h"

namespace object_layer {

using namespace py;

template <auto Function> PyObject* call_entry(PyObject*, PyObject* const* arguments, Py_ssize_t count)
{
    constexpr std::size_t arity = ArityOf<decltype(Function)>::value;
    if (count != static_cast<Py_ssize_t>(arity)) {
        PyErr_SetString(PyExc_TypeError, "wrong number of arguments");
        return nullptr;
    }
    return at_the_edge("entry", [&] {
        return [&]<std::size_t... Index>(std::index_sequence<Index...>) {
            return Function(borrow(arguments[Index])...);
        }(std::make_index_sequence<arity>());
    });
}

// A function of the test module, with positional arguments only.
template <auto Function> PyMethodDef entry(const char* name)
{
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&call_entry<Function>)), METH_FASTCALL,
            nullptr};
}

extern PyMethodDef verbs[];       // object_layer.cpp
extern PyMethodDef deep_copies[]; // deep_copy_entries.cpp
extern PyMethodDef scans[];       // scan_entries.cpp

void build_sample_classes(); // sample_classes.cpp

} // namespace object_layer
