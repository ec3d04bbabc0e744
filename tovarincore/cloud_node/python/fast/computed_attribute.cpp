// An attribute that a property of the class computes, without the look-up that finds the property again.
#include "../fast_hooks.h"
#include "../object.h"
#include "name_memory.h"

namespace py::fast {

namespace {

bool says_whose_it_is(PyObject* error)
{
    auto* attribute_error = reinterpret_cast<PyAttributeErrorObject*>(error);
    return attribute_error->name != nullptr || attribute_error->obj != nullptr;
}

bool tell(Handle error, Name what, Handle value) { return PyObject_SetAttr(error.ptr(), what.ptr(), value.ptr()) == 0; }

// What the interpreter's look-up tells an AttributeError on its way, for suggestions.
void tell_whose_it_is(Name name, Handle object)
{
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0)
        return;
    PyObject *raw_type, *raw_error, *raw_traceback;
    PyErr_Fetch(&raw_type, &raw_error, &raw_traceback);
    PyErr_NormalizeException(&raw_type, &raw_error, &raw_traceback);
    Object type = adopt(raw_type), error = adopt(raw_error), traceback = adopt(raw_traceback);
    if (PyErr_GivenExceptionMatches(error.ptr(), PyExc_AttributeError) == 0 || says_whose_it_is(error.ptr()) ||
        (tell(error, "name"_s, name) && tell(error, "obj"_s, object)))
        PyErr_Restore(type.release(), error.release(), traceback.release());
}

} // namespace

Object computed_attribute(const Name& name, const Handle& object, const CallSite& site)
{
    PyObject* known = name.memory().known().attribute.known_property(object.ptr());
    if (known == nullptr)
        return Object();
    Object property(borrow(known)); // its code may take it from the class
    PyObject* value =
        PyProperty_Type.tp_descr_get(known, object.ptr(), reinterpret_cast<PyObject*>(Py_TYPE(object.ptr())));
    if (value == nullptr)
        tell_whose_it_is(name, object);
    return steal(value, site);
}

} // namespace py::fast
