// The interpreter's state, read without a call into it: whether it winds down, and how deep the calls are. Its own
// headers say where that stands; the module asks at its start whether it is so in the interpreter that runs.
#pragma once

#include "../interpreter.h"

// The headers are meant for C; in C++ their atomic operations need the compiler's built-ins.
#undef HAVE_STD_ATOMIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include <internal/pycore_ceval.h>
#include <internal/pycore_interp.h>
#include <internal/pycore_pystate.h>
#include <internal/pycore_runtime.h>
#pragma GCC diagnostic pop

namespace py::fast::runtime {

// Whether the running interpreter is laid out as its headers said when the module was compiled: self_check.cpp looks. A
// later release of the same version could differ: then everything is asked by calls, and nothing is remembered.
inline constinit bool is_as_compiled = false;

inline bool is_finalising()
{
    if (!is_as_compiled) [[unlikely]]
        return py::is_finalising();
    return _PyRuntimeState_GetFinalizing(&_PyRuntime) != nullptr;
}

#if PY_VERSION_HEX < 0x030C0000
inline PyThreadState* running_thread() { return is_as_compiled ? _PyThreadState_GET() : PyThreadState_Get(); }
#else
inline PyThreadState* running_thread() { return PyThreadState_Get(); }
#endif

#if PY_VERSION_HEX < 0x030B0000
inline bool enter_call(PyThreadState* thread, const char* where)
{
    if (!is_as_compiled) [[unlikely]]
        return (Py_EnterRecursiveCall)(where) == 0; // the function: a macro of that name stands before it
    return _Py_EnterRecursiveCall(thread, where) == 0;
}
inline void leave_call(PyThreadState* thread) { _Py_LeaveRecursiveCall(thread); }
#else
inline bool enter_call(PyThreadState* thread, const char* where)
{
    return _Py_EnterRecursiveCallTstate(thread, where) == 0;
}
inline void leave_call(PyThreadState* thread) { _Py_LeaveRecursiveCallTstate(thread); }
#endif

inline bool something_is_due()
{
    if (!is_as_compiled) [[unlikely]]
        return true;
#if PY_VERSION_HEX >= 0x030D0000
    return (_Py_atomic_load_uintptr_relaxed(&running_thread()->eval_breaker) & _PY_EVAL_EVENTS_MASK) != 0;
#else
    return __atomic_load_n(&running_thread()->interp->ceval.eval_breaker._value, __ATOMIC_RELAXED) != 0;
#endif
}

// Where making so many containers brings a collection, lets the next one bring it.
inline bool bring_collection_forward(Py_ssize_t containers)
{
    if (!is_as_compiled)
        return false;
    auto& collector = running_thread()->interp->gc;
    auto& youngest = collector.generations[0];
    if (collector.enabled == 0 || youngest.threshold == 0 || containers <= youngest.threshold - youngest.count)
        return false;
    youngest.count = youngest.threshold + 1;
    return true;
}

// Whether the next container that is made brings a collection.
inline bool collection_is_due()
{
    if (!is_as_compiled) [[unlikely]]
        return true;
    const auto& collector = running_thread()->interp->gc;
    return collector.enabled != 0 && collector.generations[0].count > collector.generations[0].threshold;
}

// Whether the headers say what the interpreter answers.
inline bool state_is_as_compiled()
{
    if (_PyRuntime.interpreters.main != PyInterpreterState_Main() || py::is_finalising() ||
        _PyRuntimeState_GetFinalizing(&_PyRuntime) != nullptr)
        return false;
#if PY_VERSION_HEX < 0x030C0000
    if (_PyThreadState_GET() != PyThreadState_Get())
        return false;
#endif
#if PY_VERSION_HEX < 0x030B0000
    if (PyInterpreterState_Get()->ceval.recursion_limit != Py_GetRecursionLimit())
        return false;
#endif
    return true;
}

} // namespace py::fast::runtime
