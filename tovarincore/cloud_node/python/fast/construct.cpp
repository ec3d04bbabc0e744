// Calling a class whose instances come from object.__new__ and an __init__ in Python, without a tuple and a dictionary
// of the arguments in between.
#include "../fast_hooks.h"
#include "../object.h"
#include "../recursion.h"
#include "quiet_lookup.h"

namespace py::fast {

namespace {

// Without a collection, whose finalisers could give the class another initialiser. By object.__new__: tp_alloc alone
// gives an instance of 3.11 and 3.12 no place for its values, so that the first attribute would make a dictionary.
PyObject* allocate(PyTypeObject* type)
{
    NoCollection undisturbed;
    return layout::new_instance(type);
}

} // namespace

PyObject* initialiser(PyObject* callable)
{
    if (!runtime::is_as_compiled || !Py_IS_TYPE(callable, &PyType_Type))
        return nullptr;
    auto* type = reinterpret_cast<PyTypeObject*>(callable);
    if (type->tp_new != PyBaseObject_Type.tp_new || PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT) ||
        type->tp_init == PyBaseObject_Type.tp_init || !is_quiet_class(type))
        return nullptr;
    PyObject* found = _PyType_Lookup(type, "__init__"_s.ptr());
    return found != nullptr && PyFunction_Check(found) ? found : nullptr;
}

Object construct(Handle callable, Handle initialiser, PyObject** values, std::size_t positional, PyObject* names,
                 const CallSite& site)
{
    auto* type = reinterpret_cast<PyTypeObject*>(callable.ptr());
    Object function(initialiser);
    Object made = steal(allocate(type), site);
    values[0] = made.ptr();
    Level level(site);
    Object result = steal(PyObject_Vectorcall(function.ptr(), values, positional + 1, names), site);
    if (!result.is_none()) {
        PyErr_Format(PyExc_TypeError, "__init__() should return None, not '%.200s'", Py_TYPE(result.ptr())->tp_name);
        throw Raised{site};
    }
    return made;
}

} // namespace py::fast
