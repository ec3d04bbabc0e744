// An attribute that a property of the class computes, without the look-up that finds the property again.
#include "../attribute_error.h"
#include "../fast_hooks.h"
#include "name_memory.h"

namespace py::fast {

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
