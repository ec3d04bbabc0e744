// Where an attribute of a given name was found the last time, so that the next read of it takes a few comparisons.
// One for each name in the source. It answers only where the interpreter's own lookup would give the same without running
// any Python code; everything else takes that lookup.
#pragma once

#include "known_keys.h"

#include <cstring>

namespace py {

class AttributeCache {
public:
    // The value in the instance's own __dict__; borrowed. Null: look it up in the general way.
    PyObject* instance_value(PyObject* instance, PyObject* name)
    {
        if constexpr (!layout::known)
            return nullptr;
        if (knows(Py_TYPE(instance)) && index_ >= 0) [[likely]] {
            PyObject* dict = *layout::dict_slot(instance);
            if (dict != nullptr && keys_.use_same_table(dict) && index_ < PyDict_GET_SIZE(dict)) [[likely]]
                return layout::shared_values(dict)[index_];
        }
        consider(instance, name);
        return nullptr;
    }

    // The function of the class, to be called with the instance as its first argument; borrowed. Null: as above.
    PyObject* method(PyObject* instance, PyObject* name)
    {
        if constexpr (!layout::known)
            return nullptr;
        if (knows(Py_TYPE(instance)) && method_ != nullptr) [[likely]] {
            PyObject* dict = Py_TYPE(instance)->tp_dictoffset == 0 ? nullptr : *layout::dict_slot(instance);
            if (dict == nullptr || (index_ < 0 && keys_.cover(dict))) [[likely]]
                return method_;
        }
        consider(instance, name);
        return nullptr;
    }

    // Whether `instance.name = value` puts the value into the instance's __dict__, where the name already stands.
    bool sets_instance_value(PyObject* instance, PyObject* name)
    {
        return instance_value(instance, name) != nullptr && settable_;
    }

    // Learns from this instance at once; otherwise a type is learnt when it comes twice running.
    void learn(PyObject* instance, PyObject* name);

private:
    bool knows(PyTypeObject* type) const
    {
        return type == type_ && layout::version_of_type(type) == version_;
    }

    void consider(PyObject* instance, PyObject* name);

    PyTypeObject* type_ = nullptr;
    PyTypeObject* candidate_ = nullptr;
    unsigned version_ = 0;
    bool settable_ = false;
    Py_ssize_t index_ = -1;      // of the name in the key table; -1: it is not among the table's known keys
    PyObject* method_ = nullptr; // lives as long as this version of the type
    KnownKeys keys_;
};

// Both are texts, and neither has a class that could compare differently.
inline bool are_plain_texts(PyObject* a, PyObject* b)
{
    return PyUnicode_CheckExact(a) && PyUnicode_CheckExact(b) && PyUnicode_IS_READY(a) && PyUnicode_IS_READY(b);
}

inline bool is_same_text(PyObject* a, PyObject* b)
{
    if (a == b)
        return true;
    Py_ssize_t length = PyUnicode_GET_LENGTH(a);
    return length == PyUnicode_GET_LENGTH(b) && PyUnicode_KIND(a) == PyUnicode_KIND(b) &&
           std::memcmp(PyUnicode_DATA(a), PyUnicode_DATA(b), static_cast<std::size_t>(length) * PyUnicode_KIND(a)) == 0;
}

// `==` of such an object is the one of `object`: it is equal to itself only.
inline bool compares_by_identity(PyObject* object)
{
    return Py_TYPE(object)->tp_richcompare == PyBaseObject_Type.tp_richcompare;
}

} // namespace py
