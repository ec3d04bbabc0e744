// Counts native calls against the interpreter's recursion limit, as it counts the calls that it makes itself.
#pragma once

#include "interpreter.h"

namespace py {

#if PY_VERSION_HEX >= 0x030C0000
// From 3.12 on the interpreter counts C calls apart, up to a number that the frames of our methods outgrow the stack
// with: those of one thread are held to the limit for Python calls as well.
inline thread_local int native_depth = 0;

inline bool enter_native_call()
{
    if (native_depth >= Py_GetRecursionLimit()) {
        PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded while calling a Python object");
        return false;
    }
    if (Py_EnterRecursiveCall(" while calling a Python object") != 0)
        return false;
    ++native_depth;
    return true;
}

inline void leave_native_call()
{
    --native_depth;
    Py_LeaveRecursiveCall();
}
#else
// False with RecursionError set: then the call must not be made, nor left.
inline bool enter_native_call() { return Py_EnterRecursiveCall(" while calling a Python object") == 0; }

inline void leave_native_call() { Py_LeaveRecursiveCall(); }
#endif

} // namespace py
