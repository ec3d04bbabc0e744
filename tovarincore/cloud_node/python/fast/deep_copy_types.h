// What deepcopy would do with an instance of a type, found out once per type and version of the type.
#pragma once

#include "../name.h"
#include "shared_key_table.h"

#include <limits>

namespace py::fast {

enum class CopyKind : std::uint8_t {
    unusual, // a hook, slots, a built-in base, ...: Python's own function has to look at it
    atomic,  // is its own copy
    list,
    tuple,
    dict,
    object,      // plain attribute access, no copy or pickle hook, an ordinary __dict__, object.__new__
    enumeration, // a member of an enumeration that is as the enum module made it
};

// How deep containers are copied natively, which takes the machine's stack for each level. From 3.11 on Python's own
// function takes none of it: what is nested deeper is left to that one.
inline constexpr int deepest = PY_VERSION_HEX < 0x030B0000 ? std::numeric_limits<int>::max() : 100;

struct CopyPlan {
    PyTypeObject* type = nullptr;
    unsigned version = 0;
    unsigned metatype_version = 0;
    CopyKind kind = CopyKind::unusual;
    // Both live as long as this version of the type, whose dictionary has them.
    PyObject* members = nullptr;    // of an enumeration: its _value2member_map_
    PyObject* slot_names = nullptr; // of an object: its __slotnames__
    SharedKeyTable keys;            // of instances: a table without a name that deepcopy or pickle look for
};

// The types of nearly all attribute values; such values are their own copies and no hashing or comparing of them can
// run Python code.
inline bool is_plain_value(PyTypeObject* type)
{
    return type == &PyUnicode_Type || type == Py_TYPE(Py_None) || type == &PyBool_Type || type == &PyLong_Type ||
           type == &PyFloat_Type;
}

// Makes the names that the functions below look up. They themselves neither fail nor run Python code.
void ready_copy_names();

// Valid until the next call.
CopyPlan& copy_plan(PyTypeObject* type);

// Whether the plan to copy an object still holds: a program may write into the list of its slots.
inline bool has_no_slots(const CopyPlan& plan) { return PyList_GET_SIZE(plan.slot_names) == 0; }

// What a class or a base has under a name, for quiet classes; borrowed or null.
inline PyObject* class_attribute(PyTypeObject* type, Name name) { return _PyType_Lookup(type, name.ptr()); }

// What is common to every type that deepcopy treats without calling code of the type.
bool has_no_hooks(PyTypeObject* type);

// Spreads addresses over a table.
inline std::size_t place_of(const void* address)
{
    auto number = reinterpret_cast<std::uintptr_t>(address);
    return (number >> 4) ^ (number >> 10);
}

// Whether the names of all attributes are plain: none that is no text, none with two leading underscores. Remembers a
// key table that has passed.
bool has_plain_names(const layout::SharedValues& shared, CopyPlan& plan);
bool has_plain_names(PyObject* dict);

} // namespace py::fast
