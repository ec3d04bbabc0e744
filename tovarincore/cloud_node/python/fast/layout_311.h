// What is read of the structures of CPython 3.11 to 3.13, from the interpreter's own headers: what a later version
// changes does not compile in place of going wrong.
#pragma once

#include "../interpreter.h"

// The headers are meant for C; in C++ their atomic operations need the compiler's built-ins.
#undef HAVE_STD_ATOMIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#include <internal/pycore_ceval.h>
#include <internal/pycore_dict.h>
#include <internal/pycore_object.h>
#pragma GCC diagnostic pop

#include <cstdint>

namespace py::fast::layout {

// Changes with every change of the dictionary; no two dictionaries ever have the same.
inline std::uint64_t version_of_dict(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// Changes with every change of the type or of a base; no two types ever have the same. 0: none at the moment.
inline unsigned version_of_type(PyTypeObject* type) { return type->tp_version_tag; }

// Whether instances have a __dict__ as a class statement gives it; whether they have none at all.
inline bool has_managed_dict(PyTypeObject* type) { return PyType_HasFeature(type, Py_TPFLAGS_MANAGED_DICT); }
inline bool has_no_dict(PyTypeObject* type) { return !has_managed_dict(type) && type->tp_dictoffset == 0; }

// How large an instance of a class without slots is.
inline Py_ssize_t plain_size(PyTypeObject* type)
{
    return PyBaseObject_Type.tp_basicsize + (type->tp_weaklistoffset > 0 ? Py_ssize_t{sizeof(PyObject*)} : 0);
}

// A new instance of a class whose __new__ is that of object.
inline PyObject* new_instance(PyTypeObject* type)
{
    static PyObject* const no_arguments = PyTuple_New(0); // the interpreter's only one
    return no_arguments == nullptr ? nullptr : PyBaseObject_Type.tp_new(type, no_arguments, nullptr);
}

// The values of an instance whose key table belongs to its class. The table only ever grows.
struct SharedValues {
    PyDictValues* values = nullptr; // null: the attributes are kept in another way
    PyDictKeysObject* keys = nullptr;

    explicit operator bool() const { return values != nullptr; }
    const void* table() const { return keys; }
    Py_ssize_t count() const { return keys->dk_nentries; } // of the names in the table
    PyObject* name(Py_ssize_t index) const { return DK_UNICODE_ENTRIES(keys)[index].me_key; }
    PyObject* at(Py_ssize_t index) const { return values->values[index]; } // borrowed; null: not set
};

inline PyDictKeysObject* keys_of_class(PyTypeObject* type)
{
    return reinterpret_cast<PyHeapTypeObject*>(type)->ht_cached_keys;
}

// The instance's dictionary, where one was made; borrowed or null. For classes with a managed __dict__.
inline PyObject* dict_of(PyObject* instance)
{
#if PY_VERSION_HEX >= 0x030D0000
    return reinterpret_cast<PyObject*>(_PyObject_ManagedDictPointer(instance)->dict);
#elif PY_VERSION_HEX >= 0x030C0000
    PyDictOrValues kept = *_PyObject_DictOrValuesPointer(instance);
    return _PyDictOrValues_IsValues(kept) ? nullptr : _PyDictOrValues_GetDict(kept);
#else
    return *_PyObject_ManagedDictPointer(instance);
#endif
}

inline SharedValues shared_values_in(PyObject* dict)
{
    auto* inside = reinterpret_cast<PyDictObject*>(dict);
    return inside->ma_values == nullptr ? SharedValues{} : SharedValues{inside->ma_values, inside->ma_keys};
}

// The values that stand in the instance itself; for classes with a managed __dict__.
inline PyDictValues* own_values(PyObject* instance)
{
#if PY_VERSION_HEX >= 0x030D0000
    if (!PyType_HasFeature(Py_TYPE(instance), Py_TPFLAGS_INLINE_VALUES))
        return nullptr;
    PyDictValues* values = _PyObject_InlineValues(instance);
    return values->valid ? values : nullptr;
#elif PY_VERSION_HEX >= 0x030C0000
    PyDictOrValues kept = *_PyObject_DictOrValuesPointer(instance);
    return _PyDictOrValues_IsValues(kept) ? _PyDictOrValues_GetValues(kept) : nullptr;
#else
    return *_PyObject_ValuesPointer(instance);
#endif
}

inline SharedValues shared_values_of(PyObject* instance)
{
    if (PyDictValues* values = own_values(instance)) [[likely]]
        return {values, keys_of_class(Py_TYPE(instance))};
    PyObject* dict = dict_of(instance);
    SharedValues shared = dict == nullptr || !PyDict_CheckExact(dict) ? SharedValues{} : shared_values_in(dict);
    // The dictionary may come from an instance of another class, or from before a change of class: its table goes with
    // that class, and the address may mean another table later.
    return shared.keys == keys_of_class(Py_TYPE(instance)) ? shared : SharedValues{};
}

// The value at an index of an instance that keeps its values by this table; borrowed or null.
inline PyObject* value_in_table(PyObject* instance, const void* table, Py_ssize_t index)
{
    SharedValues shared = shared_values_of(instance);
    return shared && shared.table() == table ? shared.at(index) : nullptr;
}

// The same for many instances of one class.
class TableReader {
public:
    TableReader(PyTypeObject*, const void* table, Py_ssize_t index) : table_(table), index_(index) {}
    PyObject* value(PyObject* instance) const { return value_in_table(instance, table_, index_); }

private:
    const void* table_;
    Py_ssize_t index_;
};

// The instance has no attributes but those of the first `count` names of the table.
inline bool has_only_names_of(PyObject* instance, const void* table, Py_ssize_t count)
{
    if (SharedValues shared = shared_values_of(instance)) [[likely]]
        return shared.table() == table && shared.count() <= count;
    return dict_of(instance) == nullptr;
}

// A combined dictionary of the instance's own, which no key table of the class serves, with texts for keys; null where
// there is none.
inline PyObject* combined_dict_of(PyObject* instance)
{
    if (own_values(instance) != nullptr)
        return nullptr;
    PyObject* dict = dict_of(instance);
    if (dict == nullptr || !PyDict_CheckExact(dict))
        return nullptr;
    auto* inside = reinterpret_cast<PyDictObject*>(dict);
    return inside->ma_values == nullptr && DK_IS_UNICODE(inside->ma_keys) ? dict : nullptr;
}

// The value under this very name at a position of a combined dictionary; borrowed, null where another name is there.
inline PyObject* value_at(PyObject* dict, PyObject* name, Py_ssize_t position)
{
    PyDictKeysObject* keys = reinterpret_cast<PyDictObject*>(dict)->ma_keys;
    if (position >= keys->dk_nentries)
        return nullptr;
    const PyDictUnicodeEntry& entry = DK_UNICODE_ENTRIES(keys)[position];
    return entry.me_key == name ? entry.me_value : nullptr;
}

// Where the dictionary has this very name; -1: nowhere.
inline Py_ssize_t position_of(PyObject* dict, PyObject* name)
{
    Py_ssize_t position = reinterpret_cast<PyDictObject*>(dict)->ma_keys->dk_nentries - 1;
    while (position >= 0 && value_at(dict, name, position) == nullptr)
        --position;
    return position;
}

// The key table lives as long as the class does, and is compared for instances of that class alone.
struct KeptTable {
    bool keep(const SharedValues&) { return true; }
};

// Puts another value in the place of one that is set. False: it failed, with an error set.
inline bool replace_value(PyObject* instance, PyObject* name, const SharedValues& shared, Py_ssize_t index,
                          PyObject* value)
{
    if (dict_of(instance) != nullptr) // its version has to change too
        return PyObject_SetAttr(instance, name, value) == 0;
    PyObject* old = shared.values->values[index];
    Py_INCREF(value);
    shared.values->values[index] = value;
    Py_DECREF(old);
    return true;
}

// Calls `copy` for each value in the order in which the names were set, and gives what it returns, a new reference, to
// the new instance. False: the instance cannot take them, or `copy` returned null.
template <class Copy> bool fill(PyObject* made, const SharedValues& from, Copy copy)
{
    PyDictValues* to = own_values(made);
    if (to == nullptr || keys_of_class(Py_TYPE(made)) != from.keys)
        return false;
#if PY_VERSION_HEX >= 0x030D0000
    const std::uint8_t* order = get_insertion_order_array(from.values);
    const int size = from.values->size;
    auto place = [&](int i) { return Py_ssize_t{order[i]}; };
#else
    const auto* size_place = reinterpret_cast<const std::uint8_t*>(from.values) - 2;
    const int size = *size_place;
    auto place = [&](int i) { return Py_ssize_t{size_place[-1 - i]}; };
#endif
    for (int i = 0; i < size; ++i) {
        Py_ssize_t index = place(i);
        PyObject* value = from.values->values[index];
        PyObject* copied = copy(value);
        if (copied == nullptr)
            return false;
        to->values[index] = copied;
        _PyDictValues_AddToInsertionOrder(to, index);
    }
    return true;
}

// The instance's attributes are those of the dictionary from now on; takes the reference. Through the class's accessor:
// PyObject_GenericSetDict of 3.13 leaves the values in the instance valid.
inline bool give_dict(PyObject* made, PyObject* dict)
{
    static PyObject* const name = PyUnicode_InternFromString("__dict__");
    int status = name == nullptr ? -1 : PyObject_GenericSetAttr(made, name, dict);
    Py_DECREF(dict);
    return status == 0;
}

// Whether all keys of the dictionary are texts: searching it runs no code then.
inline bool has_text_keys_only(PyObject* dict) { return DK_IS_UNICODE(reinterpret_cast<PyDictObject*>(dict)->ma_keys); }

// What a static method wraps; borrowed, may be null.
inline PyObject* wrapped_function(PyObject* method)
{
    PyObject* function = PyStaticMethod_Type.tp_descr_get(method, nullptr, nullptr);
    if (function == nullptr)
        PyErr_Clear();
    Py_XDECREF(function); // the wrapper holds it
    return function;
}

} // namespace py::fast::layout
