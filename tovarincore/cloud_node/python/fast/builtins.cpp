// isinstance, len and str, as long as those names stand for the interpreter's own.
#include "../fast_hooks.h"
#include "../name.h"
#include "quiet_lookup.h"
#include "self_check.h"

#include <cstring>

namespace py::fast {

namespace {

// Null where something else stood there already when the module was imported.
PyObject *genuine_isinstance = nullptr, *genuine_len = nullptr;

// A new reference to the interpreter's own built-in function of this name, or null.
PyObject* genuine(PyObject* builtin_names, const char* name)
{
    PyObject* found = item_named(builtin_names, name);
    PyObject* module = found != nullptr && PyCFunction_CheckExact(found) ? PyCFunction_GET_SELF(found) : nullptr;
    if (module == nullptr || !PyModule_Check(module) || PyModule_GetDict(module) != builtin_names ||
        std::strcmp(reinterpret_cast<PyCFunctionObject*>(found)->m_ml->ml_name, name) != 0)
        return nullptr;
    Py_INCREF(found);
    return found;
}

// Its __class__ is its type: isinstance() asks for both.
bool is_plainly_of_its_type(PyObject* object)
{
    PyObject* name = "__class__"_s.ptr();
    PyTypeObject* type = Py_TYPE(object);
    return type->tp_getattro == PyObject_GenericGetAttr && is_quiet_class(type) &&
           _PyType_Lookup(type, name) == _PyType_Lookup(&PyBaseObject_Type, name);
}

} // namespace

void open(PyObject* builtin_names)
{
    open_quiet_lookups();
    look_at_layout();
    genuine_isinstance = genuine(builtin_names, "isinstance");
    genuine_len = genuine(builtin_names, "len");
}

Answer is_instance(PyObject* function, PyObject* object, PyObject* type)
{
    if (function != genuine_isinstance || !PyType_CheckExact(type) || !is_plainly_of_its_type(object))
        return Answer::unknown;
    bool is_one = PyType_IsSubtype(Py_TYPE(object), reinterpret_cast<PyTypeObject*>(type)) != 0;
    return is_one ? Answer::yes : Answer::no;
}

Py_ssize_t len(PyObject* function, PyObject* object) { return function == genuine_len ? PyObject_Size(object) : -1; }

PyObject* str(PyObject* function, PyObject* object)
{
    return function == reinterpret_cast<PyObject*>(&PyUnicode_Type) ? PyObject_Str(object) : nullptr;
}

} // namespace py::fast
