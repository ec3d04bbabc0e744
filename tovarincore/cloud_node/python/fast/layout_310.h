// What is read of CPython 3.10's own structures, all in this place.
#pragma once

#include "../interpreter.h"

#include <cstdint>
#include <utility>

namespace py::fast::layout {

// Changes with every change of the dictionary; no two dictionaries ever have the same.
inline std::uint64_t version_of_dict(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// Changes with every change of the type or of a base; no two types ever have the same. 0: none at the moment.
inline unsigned version_of_type(PyTypeObject* type) { return type->tp_version_tag; }

// Whether instances have a __dict__ as a class statement gives it; whether they have none at all.
inline bool has_managed_dict(PyTypeObject* type) { return type->tp_dictoffset > 0; }
inline bool has_no_dict(PyTypeObject* type) { return type->tp_dictoffset == 0; }

// How large an instance of a class without slots is.
inline Py_ssize_t plain_size(PyTypeObject* type)
{
    return PyBaseObject_Type.tp_basicsize + Py_ssize_t{sizeof(PyObject*)} +
           (type->tp_weaklistoffset > 0 ? Py_ssize_t{sizeof(PyObject*)} : 0);
}

// A new instance of a class whose __new__ is that of object.
inline PyObject* new_instance(PyTypeObject* type) { return type->tp_alloc(type, 0); }

// Where an instance keeps its __dict__; for classes with a managed one.
inline PyObject** dict_slot(PyObject* instance)
{
    return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(instance) + Py_TYPE(instance)->tp_dictoffset);
}

// The instance's dictionary, where one was made; borrowed or null. For classes with a managed __dict__.
inline PyObject* dict_of(PyObject* instance) { return *dict_slot(instance); }

// A key-sharing dictionary: its values, in the order of a key table that the instances of a class share. The
// table only ever grows, and the dictionary uses its first PyDict_GET_SIZE() keys.
struct SharedValues {
    PyObject* dict = nullptr; // null: the attributes are kept in another way

    explicit operator bool() const { return dict != nullptr; }
    const void* table() const { return inside()->ma_keys; }
    Py_ssize_t count() const { return PyDict_GET_SIZE(dict); } // of the names that are set
    PyObject* at(Py_ssize_t index) const { return index < count() ? inside()->ma_values[index] : nullptr; }

    // From the next position on, in the order of the table; borrowed or null.
    PyObject* name(Py_ssize_t index) const
    {
        PyObject *name, *value;
        Py_ssize_t position = index; // in such a dictionary positions are indexes
        return PyDict_Next(dict, &position, &name, &value) != 0 ? name : nullptr;
    }

private:
    PyDictObject* inside() const { return reinterpret_cast<PyDictObject*>(dict); }
};

inline SharedValues shared_values_in(PyObject* dict)
{
    return reinterpret_cast<PyDictObject*>(dict)->ma_values == nullptr ? SharedValues{} : SharedValues{dict};
}

inline SharedValues shared_values_of(PyObject* instance)
{
    PyObject* dict = dict_of(instance);
    return dict == nullptr || !PyDict_CheckExact(dict) ? SharedValues{} : shared_values_in(dict);
}

// The value at an index of an instance whose dictionary shares this table; borrowed or null. Such a dictionary has room
// for all names of its table.
inline PyObject* value_in_table(PyObject* instance, const void* table, Py_ssize_t index)
{
    auto* dict = reinterpret_cast<PyDictObject*>(dict_of(instance));
    if (dict == nullptr || dict->ma_keys != table || dict->ma_values == nullptr) [[unlikely]]
        return nullptr;
    return dict->ma_values[index];
}

// The same for many instances of one class.
class TableReader {
public:
    TableReader(PyTypeObject* type, const void* table, Py_ssize_t index)
        : table_(table), offset_(type == nullptr ? 0 : type->tp_dictoffset), index_(index)
    {
    }

    PyObject* value(PyObject* instance) const
    {
        auto* dict = *reinterpret_cast<PyDictObject**>(reinterpret_cast<char*>(instance) + offset_);
        if (dict == nullptr || dict->ma_keys != table_ || dict->ma_values == nullptr) [[unlikely]]
            return nullptr;
        return dict->ma_values[index_];
    }

private:
    const void* table_;
    Py_ssize_t offset_, index_;
};

// The instance has no attributes but those of the first `count` names of the table.
inline bool has_only_names_of(PyObject* instance, const void* table, Py_ssize_t count)
{
    auto* dict = reinterpret_cast<PyDictObject*>(dict_of(instance));
    return dict == nullptr || (dict->ma_keys == table && dict->ma_values != nullptr && dict->ma_used <= count);
}

// How the dictionary finds a key: one function for as long as all its keys are texts, others later.
inline const void* search_of(PyObject* dict)
{
    struct KeyTable { // the beginning of it
        Py_ssize_t references, size;
        const void* search;
    };
    return reinterpret_cast<const KeyTable*>(reinterpret_cast<PyDictObject*>(dict)->ma_keys)->search;
}

// Those of dictionaries of texts: quiet_lookup.cpp sees them on a dictionary that it makes.
inline const void* search_for_texts = nullptr;
inline const void* search_after_deletions = nullptr;

// A combined dictionary of the instance's own, which no key table of the class serves, with texts for keys; null where
// there is none.
inline PyObject* combined_dict_of(PyObject* instance)
{
    PyObject* dict = dict_of(instance);
    if (dict == nullptr || !PyDict_CheckExact(dict))
        return nullptr;
    if (reinterpret_cast<PyDictObject*>(dict)->ma_values != nullptr)
        return nullptr;
    const void* search = search_of(dict);
    return search == search_for_texts || search == search_after_deletions ? dict : nullptr;
}

// The value under this very name at a position of a combined dictionary; borrowed, null where another name is there.
inline PyObject* value_at(PyObject* dict, PyObject* name, Py_ssize_t position)
{
    PyObject *other, *value;
    return PyDict_Next(dict, &position, &other, &value) != 0 && other == name ? value : nullptr;
}

// Where the dictionary has this very name; -1: nowhere.
inline Py_ssize_t position_of(PyObject* dict, PyObject* name)
{
    PyObject *other, *value;
    for (Py_ssize_t next = 0; PyDict_Next(dict, &next, &other, &value) != 0;)
        if (other == name)
            return next - 1;
    return -1;
}

// Keeps a key table alive, by a dictionary that shares it: so its address means it.
class KeptTable {
public:
    // False where it could not be kept.
    bool keep(const SharedValues& shared)
    {
        PyObject* witness = copy_of(shared.dict);
        if (witness == nullptr) {
            PyErr_Clear();
            return false;
        }
        SharedValues copied = shared_values_in(witness);
        if (!copied || copied.table() != shared.table()) {
            Py_DECREF(witness);
            return false;
        }
        PyObject** values = reinterpret_cast<PyDictObject*>(witness)->ma_values;
        for (Py_ssize_t i = 0; i < copied.count(); ++i) {
            Py_INCREF(Py_None);
            Py_SETREF(values[i], Py_None); // the values are nobody's business here; their owner still holds them
        }
        PyObject* previous = std::exchange(witness_, witness);
        Py_XDECREF(previous);
        return true;
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
};

// Puts another value in the place of one that is set. False: it failed, with an error set.
inline bool replace_value(PyObject* instance, PyObject* name, const SharedValues&, Py_ssize_t, PyObject* value)
{
    PyObject* dict = dict_of(instance); // held: the old value's finaliser may replace it
    Py_INCREF(dict);
    int status = PyDict_SetItem(dict, name, value);
    Py_DECREF(dict);
    return status == 0;
}

// Gives the new instance what `copy` returns, a new reference, for each value, with the same names. False: `copy`
// returned null, or there is no memory, with an error set then. The copied dictionary keeps sharing the key table.
template <class Copy> bool fill(PyObject* made, const SharedValues& from, Copy copy)
{
    PyObject* dict = PyDict_Copy(from.dict);
    if (dict == nullptr)
        return false;
    *dict_slot(made) = dict;
    PyObject** values = reinterpret_cast<PyDictObject*>(dict)->ma_values;
    for (Py_ssize_t i = 0, size = PyDict_GET_SIZE(dict); i < size; ++i) {
        PyObject* old = values == nullptr ? nullptr : values[i];
        PyObject* copied = old == nullptr ? nullptr : copy(old);
        if (copied == nullptr)
            return false;
        values[i] = copied;
        Py_DECREF(old); // the original holds it
    }
    return true;
}

// The instance's attributes are those of the dictionary from now on; takes the reference.
inline bool give_dict(PyObject* made, PyObject* dict)
{
    *dict_slot(made) = dict;
    return true;
}

// The interpreter's own lock. Its acquire() and release() take most of their time for their arguments.
struct BuiltInLock {
    PyObject_HEAD
    PyThread_type_lock lock;
    PyObject* weak_references;
    char locked;
};

inline bool has_lock_as_known(PyObject* lock) { return Py_TYPE(lock)->tp_basicsize == sizeof(BuiltInLock); }

inline bool take_free_lock(PyObject* object)
{
    auto* lock = reinterpret_cast<BuiltInLock*>(object);
    if (lock->locked != 0 || PyThread_acquire_lock(lock->lock, NOWAIT_LOCK) != PY_LOCK_ACQUIRED)
        return false;
    lock->locked = 1;
    return true;
}

// False: it was not taken.
inline bool give_lock_back(PyObject* object)
{
    auto* lock = reinterpret_cast<BuiltInLock*>(object);
    if (lock->locked == 0)
        return false;
    PyThread_release_lock(lock->lock);
    lock->locked = 0;
    return true;
}

// What a static method wraps; borrowed, may be null.
inline PyObject* wrapped_function(PyObject* method)
{
    struct Wrapper { // the beginning of it
        PyObject_HEAD
        PyObject* function;
    };
    return reinterpret_cast<Wrapper*>(method)->function;
}

} // namespace py::fast::layout
