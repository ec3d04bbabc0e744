// One shared key table, remembered: whether a dictionary uses it is then one comparison.
#pragma once

#include "layout.h"

#include <utility>

namespace py {

class KnownKeys {
public:
    bool use_same_table(PyObject* dict) const
    {
        return layout::key_table(dict) == table_; // a dictionary that is not key-sharing has a table of its own
    }

    // The dictionary shares the table, and has none of its keys but those that the remembered dictionary had.
    bool cover(PyObject* dict) const { return use_same_table(dict) && PyDict_GET_SIZE(dict) <= count_; }

    // The dictionary shares the table and has as many keys as the remembered one.
    bool are_those_of(PyObject* dict) const { return use_same_table(dict) && PyDict_GET_SIZE(dict) == count_; }

    const void* table() const { return table_; }

    void forget() { table_ = nullptr; }

    // Keeps the table of a key-sharing dictionary alive, by an own dictionary that shares it: so its address means it.
    void remember(PyObject* dict)
    {
        PyObject* witness = copy_of(dict);
        if (witness == nullptr) {
            PyErr_Clear(); // only not remembered
            return;
        }
        PyObject** values = layout::shared_values(witness);
        if (values == nullptr || layout::key_table(witness) != layout::key_table(dict)) {
            Py_DECREF(witness);
            return;
        }
        count_ = PyDict_GET_SIZE(witness);
        table_ = layout::key_table(witness);
        for (Py_ssize_t i = 0; i < count_; ++i) {
            Py_INCREF(Py_None);
            Py_SETREF(values[i], Py_None); // the values are nobody's business here; their owner still holds them
        }
        PyObject* previous = std::exchange(witness_, witness);
        Py_XDECREF(previous);
    }

private:
    // Callers walk borrowed elements: a collection in between could run a finaliser that takes them away.
    static PyObject* copy_of(PyObject* dict)
    {
        NoCollection undisturbed;
        PyObject* copied = PyDict_Copy(dict);
        if (copied != nullptr && PyObject_GC_IsTracked(copied) != 0)
            PyObject_GC_UnTrack(copied); // a program that found it could empty it
        return copied;
    }

    PyObject* witness_ = nullptr; // kept for the life of the process
    const void* table_ = nullptr;
    Py_ssize_t count_ = 0;
};

} // namespace py
