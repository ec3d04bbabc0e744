// Comparisons that run no code.
#pragma once

#include "interpreter.h"

#include <cstdint>
#include <cstring>

namespace py {

// Both are texts, and neither has a class that could compare differently.
inline bool are_plain_texts(PyObject* a, PyObject* b)
{
    return PyUnicode_CheckExact(a) && PyUnicode_CheckExact(b) && PyUnicode_IS_READY(a) && PyUnicode_IS_READY(b);
}

inline bool are_same_bytes(const void* a, const void* b, std::size_t size)
{
    const auto* x = static_cast<const char*>(a);
    const auto* y = static_cast<const char*>(b);
    // Identifiers of one length mostly differ in their last characters.
    if (size >= sizeof(std::uint64_t)) {
        std::uint64_t end_of_x, end_of_y;
        std::memcpy(&end_of_x, x + size - sizeof end_of_x, sizeof end_of_x);
        std::memcpy(&end_of_y, y + size - sizeof end_of_y, sizeof end_of_y);
        if (end_of_x != end_of_y)
            return false;
    } else if (size > 0 && x[size - 1] != y[size - 1]) {
        return false;
    }
    return std::memcmp(x, y, size) == 0;
}

[[gnu::always_inline]] inline bool is_same_text(PyObject* a, PyObject* b) // at every turn of a search
{
    if (a == b)
        return true;
    if (PyUnicode_GET_LENGTH(a) != PyUnicode_GET_LENGTH(b))
        return false;
    auto length = static_cast<std::size_t>(PyUnicode_GET_LENGTH(a));
    if (PyUnicode_IS_COMPACT_ASCII(a) && PyUnicode_IS_COMPACT_ASCII(b)) [[likely]]
        return are_same_bytes(reinterpret_cast<PyASCIIObject*>(a) + 1, reinterpret_cast<PyASCIIObject*>(b) + 1, length);
    return PyUnicode_KIND(a) == PyUnicode_KIND(b) &&
           are_same_bytes(PyUnicode_DATA(a), PyUnicode_DATA(b), length * PyUnicode_KIND(a));
}

// `==` of such an object is the one of `object`: it is equal to itself only.
inline bool compares_by_identity(PyObject* object)
{
    return Py_TYPE(object)->tp_richcompare == PyBaseObject_Type.tp_richcompare;
}

// The two are equal when they are the same object.
inline bool are_compared_by_identity(PyObject* a, PyObject* b)
{
    return (PyBool_Check(a) && PyBool_Check(b)) || (compares_by_identity(a) && compares_by_identity(b));
}

} // namespace py
