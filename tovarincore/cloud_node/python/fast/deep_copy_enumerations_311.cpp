#include "deep_copy_enumerations.h"

#if PY_VERSION_HEX >= 0x030B0000

#include "deep_copy_genuine.h"
#include "quiet_lookup.h"

namespace py::fast {

// From 3.11 on, Enum.__deepcopy__ returns the member.
bool is_plain_enumeration(PyTypeObject* type, PyObject*& members)
{
    members = nullptr;
    return is_enumeration_metaclass(Py_TYPE(type)) && type->tp_getattro == PyObject_GenericGetAttr &&
           class_attribute(type, "__class__"_s) == class_attribute(&PyBaseObject_Type, "__class__"_s) &&
           enumerations_are_made_by({class_attribute(type, "__deepcopy__"_s)});
}

// The member itself has no other hook.
bool is_own_copy(PyObject* member, CopyPlan& plan)
{
    if (!enumerations_are_untouched() || !layout::has_managed_dict(Py_TYPE(member)))
        return false;
    PyObject* hook = "__deepcopy__"_s.ptr();
    layout::SharedValues shared = layout::shared_values_of(member);
    if (!shared) {
        PyObject* dict = layout::dict_of(member);
        return dict == nullptr ||
               (PyDict_CheckExact(dict) && has_text_keys_only(dict) && PyDict_GetItemWithError(dict, hook) == nullptr);
    }
    if (plan.keys.cover(shared)) [[likely]]
        return true;
    for (Py_ssize_t i = 0; i < shared.count(); ++i)
        if (!are_plain_texts(hook, shared.name(i)) || is_same_text(hook, shared.name(i)))
            return false;
    plan.keys.remember(shared);
    return true;
}

PyObject* value_of_member(PyObject*) { return nullptr; }

} // namespace py::fast

#endif
