// The interpreter's own lock, through its own methods but without packing arguments for them.
#include "../fast_hooks.h"
#include "layout.h"
#include "quiet_lookup.h"

#include <cstring>

namespace py::fast {

namespace {

// The interpreter's own class of locks, whose methods nobody can replace: they are called without packing arguments.
// Kept for the life of the process.
struct BuiltInLock {
    PyTypeObject* type = nullptr; // null: not met yet
    PyCFunctionWithKeywords acquire = nullptr;
    PyCFunction release = nullptr;
    PyObject* at_once = nullptr; // the arguments (False,)
} built_in;

// A method of the class itself that is called in this way; null when there is none.
PyMethodDef* method_of(PyTypeObject* type, const char* name, int flags)
{
    PyObject* found = item_named(layout::names_of_class(type), name);
    if (found == nullptr || !Py_IS_TYPE(found, &PyMethodDescr_Type))
        return nullptr;
    PyMethodDef* method = reinterpret_cast<PyMethodDescrObject*>(found)->d_method;
    return method->ml_flags == flags ? method : nullptr;
}

bool is_built_in(PyObject* lock) { return Py_IS_TYPE(lock, built_in.type); }

void learn(PyTypeObject* type)
{
    if (built_in.type != nullptr || std::strcmp(type->tp_name, "_thread.lock") != 0 ||
        !PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE))
        return;
    PyMethodDef* acquire = method_of(type, "acquire", METH_VARARGS | METH_KEYWORDS);
    PyMethodDef* release = method_of(type, "release", METH_NOARGS);
    PyObject* at_once = acquire == nullptr || release == nullptr ? nullptr : PyTuple_Pack(1, Py_False);
    if (at_once == nullptr) {
        PyErr_Clear();
        return;
    }
    Py_INCREF(type);
    built_in = {type, reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(acquire->ml_meth)),
                release->ml_meth, at_once};
}

} // namespace

Answer acquire(PyObject* lock)
{
    learn(Py_TYPE(lock));
    if (!is_built_in(lock))
        return Answer::unknown;
#if PY_VERSION_HEX < 0x030B0000
    if (runtime::is_as_compiled && layout::has_lock_as_known(built_in.type)) [[likely]]
        return layout::take_free_lock(lock) ? Answer::yes : Answer::no;
#endif
    PyObject* taken = built_in.acquire(lock, built_in.at_once, nullptr);
    if (taken == nullptr) {
        PyErr_Clear(); // acquire(timeout=3) says it again
        return Answer::unknown;
    }
    Py_DECREF(taken);
    return taken == Py_True ? Answer::yes : Answer::no;
}

Answer release(PyObject* lock)
{
    if (!is_built_in(lock))
        return Answer::unknown;
#if PY_VERSION_HEX < 0x030B0000
    if (runtime::is_as_compiled && layout::has_lock_as_known(built_in.type) && layout::give_lock_back(lock)) [[likely]]
        return Answer::yes;
#endif
    PyObject* none = built_in.release(lock, nullptr);
    Py_XDECREF(none);
    return none == nullptr ? Answer::no : Answer::yes;
}

} // namespace py::fast
