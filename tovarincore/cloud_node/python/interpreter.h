// What differs between CPython versions, in one place: 3.10 is the target, 3.11 to 3.13 build from the same source.
#pragma once

// The structures of these versions are read from the interpreter's own headers (runtime.h, layout_311.h), which ask for
// this definition before all others. A debug build lays them out differently.
#include <patchlevel.h>
#include <pyconfig.h>
#ifdef Py_GIL_DISABLED
#error "tovarincore does not support free-threaded CPython: build it with an interpreter that has the global lock"
#endif
#if TOVARIN_FAST
#if PY_VERSION_HEX >= 0x030E0000 || defined(Py_DEBUG)
#error "the fast half knows release builds of CPython 3.10 to 3.13 alone: configure with -DTOVARIN_FAST=OFF"
#endif
#define Py_BUILD_CORE
#endif

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <frameobject.h>

#if PY_VERSION_HEX >= 0x030D0000 && PY_VERSION_HEX < 0x030E0000
extern "C" int _PyObject_GetMethod(PyObject*, PyObject*, PyObject**); // in 3.13 no public header declares it any more
#endif

namespace py {

// True once the interpreter winds down.
inline bool is_finalising()
{
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

// True in a thread that the interpreter ends while it winds down: its frames are unwound without the interpreter's
// lock, and no object may be touched. The thread that winds the interpreter down still runs finalisers: false there.
inline bool thread_is_ending()
{
    if (!is_finalising()) [[likely]]
        return false;
#if PY_VERSION_HEX >= 0x030D0000
    PyThreadState* running = PyThreadState_GetUnchecked();
#else
    PyThreadState* running = _PyThreadState_UncheckedGet();
#endif
    return running == nullptr || running != PyGILState_GetThisThreadState();
}

// A frame made for a traceback entry shows `line`: from 3.11 on the line of its code object serves.
inline void set_frame_line([[maybe_unused]] PyFrameObject* frame, [[maybe_unused]] int line)
{
#if PY_VERSION_HEX < 0x030B0000
    frame->f_lineno = line;
#endif
}

// The names that a class itself has; borrowed.
inline PyObject* names_of_class(PyTypeObject* type)
{
#if PY_VERSION_HEX >= 0x030C0000
    PyObject* names = PyType_GetDict(type); // those of built-in classes belong to the interpreter
    Py_DECREF(names);
    return names;
#else
    return type->tp_dict;
#endif
}

// What the innermost frame or generator is handling, as borrowed references. Not PyErr_GetExcInfo: that one looks
// further out when this frame handles nothing, and putting its answer back would leave it with the wrong frame.
inline void handled_here(PyObject** type, PyObject** value, PyObject** traceback)
{
    _PyErr_StackItem* handled = PyThreadState_Get()->exc_info;
#if PY_VERSION_HEX >= 0x030B0000
    *type = *traceback = nullptr;
#else
    *type = handled->exc_type;
    *traceback = handled->exc_traceback;
#endif
    *value = handled->exc_value;
}

// Holds the collector off for the scope of an API call that may start it, where nothing borrowed must change meanwhile.
// No Python code runs in such a scope, so nobody sees it.
class NoCollection {
public:
    NoCollection() : was_on_(PyGC_Disable() != 0) {}
    ~NoCollection()
    {
        if (was_on_)
            PyGC_Enable();
    }
    NoCollection(const NoCollection&) = delete;
    NoCollection& operator=(const NoCollection&) = delete;

private:
    bool was_on_;
};

// What the dictionary, which has text keys only, holds under the name: borrowed. Null without an error where there is
// nothing, or no memory to look: CPython 3.13's own function for it would print that.
inline PyObject* item_named(PyObject* dict, const char* name)
{
    PyObject* key = PyUnicode_FromString(name);
    PyObject* found = key == nullptr ? nullptr : PyDict_GetItemWithError(dict, key);
    Py_XDECREF(key);
    if (found == nullptr)
        PyErr_Clear();
    return found;
}

// Looks an attribute up without raising when it is missing: 1 found (a new reference), 0 missing, -1 failed.
inline int find_attribute(PyObject* object, PyObject* name, PyObject** found)
{
#if PY_VERSION_HEX >= 0x030D0000
    return PyObject_GetOptionalAttr(object, name, found);
#else
    return _PyObject_LookupAttr(object, name, found);
#endif
}

// Looks up what `object.name(...)` calls, as the interpreter does for such a call. True: the found function takes the
// object as its first argument. False: it is called without, or, if null, there is no such attribute and an error is
// set.
inline bool find_method(PyObject* object, PyObject* name, PyObject** found)
{
#if PY_VERSION_HEX < 0x030E0000
    return _PyObject_GetMethod(object, name, found) != 0;
#else
    *found = PyObject_GetAttr(object, name);
    return false;
#endif
}

} // namespace py
