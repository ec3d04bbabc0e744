#include "attribute_memory.h"

#include "../attribute_error.h"

#include <utility>

#if PY_VERSION_HEX >= 0x030D0000

namespace py::general {

namespace {

// A look at a class takes as long as dozens of reads.
constexpr unsigned char looked_at_one = 63;

PyObject* names_of(PyObject* bases, Py_ssize_t index)
{
    return names_of_class(reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(bases, index)));
}

// Searching this dictionary for a text runs no code.
bool has_text_keys_only(PyObject* dictionary)
{
    Py_ssize_t position = 0;
    PyObject *key, *value;
    while (PyDict_Next(dictionary, &position, &key, &value))
        if (!PyUnicode_CheckExact(key))
            return false;
    return true;
}

bool has(PyObject* dictionary, PyObject* name)
{
    Py_ssize_t position = 0;
    PyObject *key, *value;
    while (PyDict_Next(dictionary, &position, &key, &value))
        if (key == name)
            return true;
    return false;
}

// What the class or a base has under the name; borrowed, null where nothing.
PyObject* found_on_class(PyTypeObject* type, PyObject* name)
{
    PyObject* bases = type->tp_mro;
    PyObject* found = nullptr;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(bases) && found == nullptr; ++i)
        found = PyDict_GetItemWithError(names_of(bases, i), name);
    return found;
}

// Looking for the name on the class and its bases runs no code, and what they have gives way to the instance's own:
// nothing, or a plain object of a class that no program can turn into a descriptor.
bool gives_way(PyTypeObject* type, PyObject* name)
{
    PyObject* bases = type->tp_mro;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(bases); ++i)
        if (!has_text_keys_only(names_of(bases, i)))
            return false;
    PyObject* found = found_on_class(type, name);
    if (found == nullptr)
        return true;
    PyTypeObject* kind = Py_TYPE(found);
    return !PyType_HasFeature(kind, Py_TPFLAGS_HEAPTYPE) && kind->tp_descr_get == nullptr &&
           kind->tp_descr_set == nullptr;
}

bool keeps_attributes_in_dictionary(PyTypeObject* type)
{
    return type->tp_getattro == PyObject_GenericGetAttr && PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT);
}

} // namespace

PyObject* AttributeMemory::look_up(PyObject* object, PyObject* name) const
{
    PyObject* value = PyObject_GetAttr(object, name);
    if (value == nullptr || !keeps_attributes_in_dictionary(Py_TYPE(object)))
        return value;
    if (passed_over_ > 0)
        --passed_over_;
    else if (std::exchange(candidate_, Py_TYPE(object)) == Py_TYPE(object))
        learn(object, name);
    return value;
}

// Of an instance whose attribute was read just now, which has given its type a version.
void AttributeMemory::learn(PyObject* object, PyObject* name) const
{
    passed_over_ = looked_at_one;
    PyObject* dictionary = PyObject_GenericGetDict(object, nullptr);
    if (dictionary == nullptr) {
        PyErr_Clear();
        return;
    }
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_version_tag != 0 && keeps_attributes_in_dictionary(type) && has(dictionary, name) &&
        gives_way(type, name)) {
        type_ = type;
        version_ = type->tp_version_tag;
    }
    Py_DECREF(dictionary);
}

PyObject* AttributeMemory::read_what_is_not_there(PyObject* object, PyObject* dictionary, PyObject* name)
{
    Object searched = adopt(dictionary);
    if (!searched) {
        PyErr_Clear(); // byte code would have needed no memory
        return PyObject_GetAttr(object, name);
    }
    if (PyErr_Occurred() == nullptr) {
        if (has_text_keys_only(dictionary))
            return PyObject_GetAttr(object, name);
        // The comparison of another key has run, and must not again.
        PyTypeObject* type = Py_TYPE(object);
        if (PyObject* on_class = found_on_class(type, name))
            return Object(borrow(on_class)).release();
        PyErr_Format(PyExc_AttributeError, "'%.100s' object has no attribute '%U'", type->tp_name, name);
    }
    tell_whose_it_is(borrow(name), borrow(object));
    return nullptr;
}

} // namespace py::general

#endif
