// The fast half's answers to ../fast_hooks.h: those that are asked at every turn, inline.
#pragma once

#include "name_memory.h"
#include "runtime.h"

namespace py::fast {

inline constexpr bool is_on = true;

inline bool is_finalising() { return runtime::is_finalising(); }
inline PyThreadState* running_thread() { return runtime::running_thread(); }
inline bool enter_call(PyThreadState* running, const char* where) { return runtime::enter_call(running, where); }
inline void leave_call(PyThreadState* running) { runtime::leave_call(running); }

inline bool something_is_due() { return runtime::something_is_due(); }

inline PyObject* stored_attribute(const MemoryOfName& memory, PyObject* object)
{
    return memory.known().attribute.shared_value(object);
}

inline PyObject* known_method(const MemoryOfName& memory, PyObject* object)
{
    return memory.known().attribute.known_method(object);
}

inline PyObject* known_global(const MemoryOfName& memory, PyObject* module_names, PyObject* builtin_names)
{
    const GlobalMemory& global = memory.known().global;
    if (global.value == nullptr || global.module_version != layout::version_of_dict(module_names) ||
        global.builtins_version != layout::version_of_dict(builtin_names)) [[unlikely]]
        return nullptr;
    return global.value;
}

#if PY_VERSION_HEX < 0x030B0000
inline Answer take_lock(PyObject* lock)
{
    if (!runtime::is_as_compiled || !layout::has_lock_as_known(lock)) [[unlikely]]
        return Answer::unknown;
    return layout::take_free_lock(lock) ? Answer::yes : Answer::no;
}

inline bool give_lock_back(PyObject* lock)
{
    return runtime::is_as_compiled && layout::has_lock_as_known(lock) && layout::give_lock_back(lock);
}
#else
inline Answer take_lock(PyObject*) { return Answer::unknown; }
inline bool give_lock_back(PyObject*) { return false; }
#endif

} // namespace py::fast
