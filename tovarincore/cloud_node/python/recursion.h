// Counts native calls against the interpreter's recursion limit, as it counts the calls that it makes itself.
#pragma once

#include "object.h"

namespace py {

inline constexpr const char* while_calling = " while calling a Python object";

// One level for the scope, as a call of a callable written in C takes it.
class Level {
public:
    explicit Level(CallSite site = CallSite::here()) : thread_(fast::running_thread())
    {
        if (!fast::enter_call(thread_, while_calling))
            throw Raised{site};
    }
    ~Level() noexcept(false)
    {
        if (!fast::is_finalising() || !thread_is_ending()) // else it has no state to count in any more
            fast::leave_call(thread_);
    }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;

private:
    PyThreadState* thread_;
};

// One level for a call of our own functions. It belongs to the running thread, or greenlet.
//
// From 3.12 on the interpreter counts C calls apart, up to a number that the frames of our methods outgrow the stack
// with: a method takes a level of both kinds.
class NativeCall {
public:
    NativeCall() : thread_(fast::running_thread()) {}

    // False with RecursionError set: then the call must not be made, nor left.
    bool enter()
    {
#if PY_VERSION_HEX >= 0x030C0000
        if (thread_->py_recursion_remaining <= 0 && thread_->recursion_headroom == 0) {
            PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded while calling a Python object");
            return false;
        }
        if (!fast::enter_call(thread_, while_calling))
            return false;
        --thread_->py_recursion_remaining;
        return true;
#else
        return fast::enter_call(thread_, while_calling);
#endif
    }

    void leave()
    {
#if PY_VERSION_HEX >= 0x030C0000
        ++thread_->py_recursion_remaining;
#endif
        fast::leave_call(thread_);
    }

private:
    PyThreadState* thread_;
};

} // namespace py
