// Reading an attribute without the fast half. Byte code remembers from 3.11 on where it lies; a call of the interpreter
// looks through the class and its bases each time, which takes longer than all the rest. Here that look is remembered
// from 3.13 on, by what every interpreter has: the version of a class, and the dictionary of an instance.
#pragma once

#include "../interpreter.h"

namespace py::general {

#if PY_VERSION_HEX < 0x030D0000

// Before, the making of a dictionary can be noticed: 3.12 moves the values into it, so that the collector meets them
// later and runs their finalisers in another order; 3.11 makes two, and frees their values twice, where a collection
// interrupts it. Byte code of 3.10 is no quicker than the interpreter's look-up.
class AttributeMemory {
public:
    static PyObject* read(PyObject* object, PyObject* name) { return PyObject_GetAttr(object, name); }
};

#else

// One for each name of the source.
class AttributeMemory {
public:
    // object.name: a new reference, or null with an error set.
    PyObject* read(PyObject* object, PyObject* name) const
    {
        if (Py_TYPE(object) != type_ || type_->tp_version_tag != version_) [[unlikely]]
            return look_up(object, name);
        PyObject* dictionary = PyObject_GenericGetDict(object, nullptr);
        PyObject* value = dictionary == nullptr ? nullptr : PyDict_GetItemWithError(dictionary, name);
        if (value == nullptr) [[unlikely]]
            return read_what_is_not_there(object, dictionary, name);
        Py_INCREF(value);
        Py_DECREF(dictionary);
        return value;
    }

private:
    [[gnu::noinline]] PyObject* look_up(PyObject* object, PyObject* name) const;
    void learn(PyObject* object, PyObject* name) const;

    // Behind a search of the dictionary, which is taken over, that found nothing or failed. Null: there is none.
    static PyObject* read_what_is_not_there(PyObject* object, PyObject* dictionary, PyObject* name);

    // Of this version of this type: an instance that has the name in its dictionary keeps the value there.
    mutable PyTypeObject* type_ = nullptr;
    mutable unsigned version_ = 0;
    mutable unsigned char passed_over_ = 0; // how many instances of other types are still not looked at
    mutable PyTypeObject* candidate_ = nullptr;
};

#endif

} // namespace py::general
