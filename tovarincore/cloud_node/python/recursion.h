// Counts native calls against the interpreter's recursion limit, as it counts the calls that it makes itself.
#pragma once

#include "object.h"

namespace py {

// One level for the scope, as a call of a callable written in C takes it.
class Level {
public:
    explicit Level(CallSite site = CallSite::here())
    {
        check(Py_EnterRecursiveCall(" while calling a Python object"), site);
    }
    ~Level() noexcept(false)
    {
        if (!thread_is_ending()) // else it has no state to count in any more
            Py_LeaveRecursiveCall();
    }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
};

#if PY_VERSION_HEX >= 0x030C0000
// From 3.12 on the interpreter counts C calls apart, up to a number that the frames of our methods outgrow the stack
// with: a method takes a level of both kinds. Both counts belong to the running thread, or greenlet.
class NativeCall {
public:
    NativeCall() : thread_(PyThreadState_Get()) {}

    // False with RecursionError set: then the call must not be made, nor left.
    bool enter()
    {
        if (thread_->py_recursion_remaining <= 0 && thread_->recursion_headroom == 0) {
            PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded while calling a Python object");
            return false;
        }
        if (Py_EnterRecursiveCall(" while calling a Python object") != 0)
            return false;
        --thread_->py_recursion_remaining;
        return true;
    }

    void leave()
    {
        ++thread_->py_recursion_remaining;
        Py_LeaveRecursiveCall();
    }

private:
    PyThreadState* thread_;
};
#else
class NativeCall {
public:
    bool enter() { return Py_EnterRecursiveCall(" while calling a Python object") == 0; }
    void leave() { Py_LeaveRecursiveCall(); }
};
#endif

} // namespace py
