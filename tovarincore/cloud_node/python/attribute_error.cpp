#include "attribute_error.h"

namespace py {

namespace {

bool says_whose_it_is(PyObject* error)
{
    auto* attribute_error = reinterpret_cast<PyAttributeErrorObject*>(error);
    return attribute_error->name != nullptr || attribute_error->obj != nullptr;
}

bool tell(Handle error, Name what, Handle value) { return PyObject_SetAttr(error.ptr(), what.ptr(), value.ptr()) == 0; }

} // namespace

void tell_whose_it_is(Handle name, Handle object)
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

} // namespace py
