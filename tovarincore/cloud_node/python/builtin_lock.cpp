#include "builtin_lock.h"

#include <cstring>

namespace py {

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
    PyObject* found = item_named(names_of_class(type), name);
    if (found == nullptr || !Py_IS_TYPE(found, &PyMethodDescr_Type))
        return nullptr;
    PyMethodDef* method = reinterpret_cast<PyMethodDescrObject*>(found)->d_method;
    return method->ml_flags == flags ? method : nullptr;
}

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

bool is_built_in_lock(PyObject* lock) { return Py_IS_TYPE(lock, built_in.type); }

fast::Answer acquire_built_in(PyObject* lock)
{
    learn(Py_TYPE(lock));
    if (!is_built_in_lock(lock))
        return fast::Answer::unknown;
    if (fast::Answer known = fast::take_lock(lock); known != fast::Answer::unknown)
        return known;
    PyObject* taken = built_in.acquire(lock, built_in.at_once, nullptr);
    if (taken == nullptr) {
        PyErr_Clear(); // acquire(timeout=3) says it again
        return fast::Answer::unknown;
    }
    Py_DECREF(taken);
    return taken == Py_True ? fast::Answer::yes : fast::Answer::no;
}

fast::Answer release_built_in(PyObject* lock)
{
    if (!is_built_in_lock(lock))
        return fast::Answer::unknown;
    if (fast::give_lock_back(lock))
        return fast::Answer::yes;
    PyObject* none = built_in.release(lock, nullptr);
    Py_XDECREF(none);
    return none == nullptr ? fast::Answer::no : fast::Answer::yes;
}

} // namespace py
