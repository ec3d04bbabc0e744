// Counts native calls against the interpreter's recursion limit, as it counts the calls that it makes itself.
#pragma once

#include "layout.h"

namespace py {

#if PY_VERSION_HEX >= 0x030C0000
// From 3.12 on the interpreter counts C calls apart, up to a number that the frames of our methods outgrow the stack
// with: those of one thread are held to the limit for Python calls as well.
class NativeCall {
public:
    // False with RecursionError set: then the call must not be made, nor left.
    bool enter()
    {
        if (depth_ >= Py_GetRecursionLimit()) {
            PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded while calling a Python object");
            return false;
        }
        if (Py_EnterRecursiveCall(" while calling a Python object") != 0)
            return false;
        ++depth_;
        return true;
    }

    void leave()
    {
        --depth_;
        Py_LeaveRecursiveCall();
    }

private:
    static inline thread_local int depth_ = 0;
};
#else
using NativeCall = layout::Recursion;
#endif

} // namespace py
