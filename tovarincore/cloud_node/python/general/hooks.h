// The answers to ../fast_hooks.h without the fast half: nothing is known but where an attribute is looked for.
#pragma once

#include "attribute_memory.h"

namespace py::fast {

inline constexpr bool is_on = false;

class MemoryOfName : public general::AttributeMemory {};

inline bool is_finalising() { return py::is_finalising(); }
inline PyThreadState* running_thread() { return PyThreadState_Get(); }
inline bool enter_call(PyThreadState*, const char* where) { return Py_EnterRecursiveCall(where) == 0; }
inline void leave_call(PyThreadState*) { Py_LeaveRecursiveCall(); }
inline bool something_is_due() { return true; }
inline PyObject* general_attribute(const MemoryOfName& memory, PyObject* name, PyObject* object)
{
    return memory.read(object, name);
}
inline PyObject* stored_attribute(const MemoryOfName&, PyObject*) { return nullptr; }
inline PyObject* found_attribute(const MemoryOfName&, PyObject*, PyObject*) { return nullptr; }
inline Answer set_attribute(const MemoryOfName&, PyObject*, PyObject*, PyObject*) { return Answer::unknown; }
inline PyObject* known_method(const MemoryOfName&, PyObject*) { return nullptr; }
inline PyObject* found_method(const MemoryOfName&, PyObject*, PyObject*) { return nullptr; }
inline PyObject* known_static_method(const MemoryOfName&, PyObject*) { return nullptr; }
inline bool is_searched_quietly(PyObject*, PyObject*) { return false; }
inline PyObject* known_global(const MemoryOfName&, PyObject*, PyObject*) { return nullptr; }
inline void note_global(const MemoryOfName&, PyObject*, PyObject*, PyObject*) {}
inline Answer is_instance(PyObject*, PyObject*, PyObject*) { return Answer::unknown; }
inline Py_ssize_t len(PyObject*, PyObject*) { return -1; }
inline PyObject* str(PyObject*, PyObject*) { return nullptr; }
inline PyObject* initialiser(PyObject*) { return nullptr; }
inline Py_ssize_t first_candidate(PyObject*, Py_ssize_t start, const Wanted&) { return start; }
inline Py_ssize_t first_like(PyObject*, const Name&, PyObject*) { return 0; }
inline Answer take_lock(PyObject*) { return Answer::unknown; }
inline bool give_lock_back(PyObject*) { return false; }
inline void collect_what_is_due() {}
inline void open(PyObject*) {}
inline void deepcopy_is_bound(PyObject*) {}

} // namespace py::fast
