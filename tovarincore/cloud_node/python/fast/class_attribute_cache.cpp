#include "class_attribute_cache.h"

#include "../object.h"
#include "quiet_lookup.h"

namespace py::fast {

namespace {

// Reading an attribute of the class is type.__getattribute__, and the metaclass has nothing under the name.
bool is_read_as_usual(PyTypeObject* metaclass, PyObject* name)
{
    PyObject* reader = "__getattribute__"_s.ptr();
    return _PyType_Lookup(metaclass, reader) == _PyType_Lookup(&PyType_Type, reader) &&
           _PyType_Lookup(metaclass, name) == nullptr;
}

} // namespace

void ClassAttributeCache::consider(PyObject* object, PyObject* name)
{
    auto* type = reinterpret_cast<PyTypeObject*>(object);
    if (unfit_version_ != 0 && layout::version_of_type(type) == unfit_version_)
        return;
    if (!is_quiet_class(type) || !is_quiet_class(Py_TYPE(type)))
        return;
    PyObject* found = _PyType_Lookup(type, name); // gives the class a version
    unsigned version = layout::version_of_type(type);
    if (found == nullptr || version == 0 || std::exchange(candidate_version_, version) != version)
        return;
    PyTypeObject* found_type = Py_TYPE(found);
    Kind kind = Kind::value;
    if (found_type == &PyStaticMethod_Type)
        kind = Kind::static_method;
    else if (found_type == &PyClassMethod_Type)
        kind = Kind::class_method;
    else if (found_type->tp_descr_get != nullptr) {
        unfit_version_ = version;
        return;
    }
    PyTypeObject* metaclass = Py_TYPE(object);
    if (!is_quiet_class(found_type) || !is_read_as_usual(metaclass, name))
        return;
    _PyType_Lookup(found_type, name); // gives it a version as well
    if (layout::version_of_type(metaclass) == 0 || layout::version_of_type(found_type) == 0)
        return;
    kind_ = kind; // with the rest, or not at all: it says how to read what is found
    class_ = type;
    metaclass_ = metaclass;
    found_ = found;
    found_type_ = found_type;
    version_ = version;
    metaclass_version_ = layout::version_of_type(metaclass);
    found_type_version_ = layout::version_of_type(found_type);
}

} // namespace py::fast
