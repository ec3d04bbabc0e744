// What is read of CPython 3.10's own structures, all in this place. Other versions lay them out differently: there
// nothing is known, every fast path that asks here is off, and the general path serves.
#pragma once

#include "interpreter.h"

#include <cstdint>

namespace py::layout {

#if PY_VERSION_HEX < 0x030B0000

inline constexpr bool known = true;

// Changes with every change of the dictionary; no two dictionaries ever have the same.
inline std::uint64_t version_of_dict(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// Changes with every change of the type or of a base; no two types ever have the same. 0: none at the moment.
inline unsigned version_of_type(PyTypeObject* type) { return type->tp_version_tag; }

// Where an instance keeps its __dict__; for types with a positive tp_dictoffset.
inline PyObject** dict_slot(PyObject* instance)
{
    return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(instance) + Py_TYPE(instance)->tp_dictoffset);
}

// A key-sharing dictionary: values of its own, in the order of a key table that the instances of a class share. The
// table only ever grows, and the dictionary uses its first PyDict_GET_SIZE() keys. Null for other dictionaries.
inline PyObject** shared_values(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_values; }
inline const void* key_table(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_keys; }

// How the dictionary finds a key: one function for as long as all its keys are texts, others later.
inline const void* search_of(PyObject* dict)
{
    struct KeyTable { // the beginning of it
        Py_ssize_t references, size;
        const void* search;
    };
    return reinterpret_cast<const KeyTable*>(key_table(dict))->search;
}

// What a static or class method wraps; borrowed, may be null.
inline PyObject* wrapped_function(PyObject* method)
{
    struct Wrapper { // the beginning of it
        PyObject_HEAD
        PyObject* function;
    };
    return reinterpret_cast<Wrapper*>(method)->function;
}

// Counts levels of the recursion limit without a call into the interpreter for each.
class Recursion {
public:
    Recursion() : thread_(PyThreadState_Get()), limit_(Py_GetRecursionLimit()) {}

    // False with RecursionError set at the limit.
    bool enter()
    {
        if (++thread_->recursion_depth <= limit_) [[likely]]
            return true;
        --thread_->recursion_depth;
        return Py_EnterRecursiveCall(" while calling a Python object") == 0;
    }

    void leave() { --thread_->recursion_depth; }

private:
    PyThreadState* thread_;
    int limit_;
};

// The built-in lock. lock.cpp tries on a lock of its own whether it is so.
struct LockObject {
    PyObject_HEAD
    PyThread_type_lock lock;
    PyObject* weak_references;
    char locked;
};

#else

inline constexpr bool known = false;
inline std::uint64_t version_of_dict(PyObject*) { return 0; }
inline unsigned version_of_type(PyTypeObject*) { return 0; }
inline PyObject** dict_slot(PyObject*) { return nullptr; }
inline PyObject** shared_values(PyObject*) { return nullptr; }
inline const void* key_table(PyObject* dict) { return dict; }
inline const void* search_of(PyObject* dict) { return dict; }
inline PyObject* wrapped_function(PyObject*) { return nullptr; }

class Recursion {
public:
    bool enter() { return Py_EnterRecursiveCall(" while calling a Python object") == 0; }
    void leave() { Py_LeaveRecursiveCall(); }
};

#endif

} // namespace py::layout
