#include "deep_copy_enumerations.h"

#if PY_VERSION_HEX < 0x030B0000

#include "deep_copy_genuine.h"
#include "quiet_lookup.h"

#include <array>

namespace py::fast {

namespace {

PyObject* dict_of(PyObject* instance) // borrowed or null; also where the __dict__ lies behind a variable part
{
    PyObject** slot = _PyObject_GetDictPtr(instance);
    return slot == nullptr ? nullptr : *slot;
}

// Members of enumerations that have passed, with what the answer depends on.
struct KnownMember {
    PyObject* member = nullptr;
    unsigned type_version = 0;
    std::uint64_t own_version = 0;
    std::uint64_t members_version = 0;
};

std::array<KnownMember, 128> known_members;

bool is_found_by_value(PyObject* member, PyObject* own, PyObject* members)
{
    if (own == nullptr || !PyDict_CheckExact(own) || !has_text_keys_only(own) ||
        PyDict_GetItemWithError(own, "__deepcopy__"_s.ptr()) != nullptr ||
        PyDict_GetItemWithError(own, "__reduce_ex__"_s.ptr()) != nullptr)
        return false;
    PyObject* value = PyDict_GetItemWithError(own, "_value_"_s.ptr());
    if (value == nullptr || !is_plain_value(Py_TYPE(value)))
        return false;
    PyObject *key, *found;
    for (Py_ssize_t position = 0; PyDict_Next(members, &position, &key, &found) != 0;)
        if (!is_plain_value(Py_TYPE(key)))
            return false; // finding the value could call a comparison written in Python
    return PyDict_GetItemWithError(members, value) == member;
}

} // namespace

// Members are found by value in the way that the enum module does it.
bool is_plain_enumeration(PyTypeObject* type, PyObject*& members)
{
    PyTypeObject* metatype = Py_TYPE(type);
    if (!is_enumeration_metaclass(metatype))
        return false;
    members = PyDict_GetItemWithError(names_of_class(type), "_value2member_map_"_s.ptr());
    return has_no_hooks(type) &&
           class_attribute(metatype, "__getattribute__"_s) == class_attribute(&PyType_Type, "__getattribute__"_s) &&
           enumerations_are_made_by({class_attribute(metatype, "__call__"_s), class_attribute(type, "__new__"_s),
                                     class_attribute(type, "__reduce_ex__"_s)}) &&
           class_attribute(type, "_value_"_s) == nullptr && members != nullptr && PyDict_CheckExact(members);
}

bool is_own_copy(PyObject* member, CopyPlan& plan)
{
    PyObject* own = dict_of(member);
    if (own == nullptr || !enumerations_are_untouched())
        return false;
    KnownMember& known = known_members[place_of(member) % known_members.size()];
    std::uint64_t own_version = layout::version_of_dict(own);
    std::uint64_t members_version = layout::version_of_dict(plan.members);
    if (known.member == member && known.type_version == plan.version && known.own_version == own_version &&
        known.members_version == members_version)
        return true;
    if (!is_found_by_value(member, own, plan.members))
        return false;
    known = {member, plan.version, own_version, members_version};
    return true;
}

PyObject* value_of_member(PyObject* member) { return PyDict_GetItemWithError(dict_of(member), "_value_"_s.ptr()); }

} // namespace py::fast

#endif
