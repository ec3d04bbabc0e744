#include "lock.h"

#include "layout.h"
#include "recursion.h"

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
PyMethodDef* method_of(PyTypeObject* type, Name name, int flags)
{
    PyObject* found = PyDict_GetItemWithError(layout::names_of_class(type), name.ptr());
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
    PyMethodDef* acquire = method_of(type, "acquire"_s, METH_VARARGS | METH_KEYWORDS);
    PyMethodDef* release = method_of(type, "release"_s, METH_NOARGS);
    PyObject* at_once = acquire == nullptr || release == nullptr ? nullptr : PyTuple_Pack(1, Py_False);
    if (at_once == nullptr) {
        PyErr_Clear();
        return;
    }
    Py_INCREF(type);
    built_in = {type, reinterpret_cast<PyCFunctionWithKeywords>(reinterpret_cast<void (*)()>(acquire->ml_meth)),
                release->ml_meth, at_once};
}

// What acquire(timeout=3) does first: it takes a free lock without waiting.
bool take_if_free(PyObject* lock)
{
    Object taken = adopt(built_in.acquire(lock, built_in.at_once, nullptr));
    if (!taken)
        PyErr_Clear(); // acquire(timeout=3) says it again
    return taken && taken.is(borrow(Py_True));
}

} // namespace

bool acquire(Handle lock, Where where)
{
    "release"_s.ptr(); // a lock that is taken must be given back also where there is no memory left
    // Near the recursion limit acquire() itself would fail. It must fail here too: release(), called at the same depth,
    // would, and leave the lock taken for ever.
    NativeCall call;
    if (!call.enter())
        throw Raised{where};
    learn(Py_TYPE(lock.ptr()));
    bool was_free = is_built_in(lock.ptr()) && take_if_free(lock.ptr());
    call.leave();
    return was_free || lock.method("acquire"_s, where)({"timeout"_k = number(3)}, where).truthy(where);
}

// The recursion limit, which acquire() has passed at the same depth, is not asked again.
void release(Handle lock, Where where)
{
    if (is_built_in(lock.ptr()))
        steal(built_in.release(lock.ptr(), nullptr), where);
    else
        lock.method("release"_s, where)(where);
}

} // namespace py
