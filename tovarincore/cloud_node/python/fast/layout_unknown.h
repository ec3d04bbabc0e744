// An interpreter whose structures are not known: every fast path that asks here is off, and the general path serves.
#pragma once

#include "../interpreter.h"

#include <cstdint>

namespace py::fast::layout {

inline constexpr bool known = false;

struct SharedValues {
    explicit operator bool() const { return false; }
    const void* table() const { return nullptr; }
    Py_ssize_t count() const { return 0; }
    PyObject* name(Py_ssize_t) const { return nullptr; }
    PyObject* at(Py_ssize_t) const { return nullptr; }
};

struct KeptTable {
    bool keep(const SharedValues&) { return false; }
};

inline std::uint64_t version_of_dict(PyObject*) { return 0; }
inline unsigned version_of_type(PyTypeObject*) { return 0; }
inline bool has_managed_dict(PyTypeObject*) { return false; }
inline bool has_no_dict(PyTypeObject*) { return false; }
inline Py_ssize_t plain_size(PyTypeObject*) { return -1; }
inline PyObject* new_instance(PyTypeObject*) { return nullptr; }
inline PyObject* dict_of(PyObject*) { return nullptr; }
inline SharedValues shared_values_in(PyObject*) { return {}; }
inline SharedValues shared_values_of(PyObject*) { return {}; }
inline PyObject* value_in_table(PyObject*, const void*, Py_ssize_t) { return nullptr; }
struct TableReader {
    TableReader(PyTypeObject*, const void*, Py_ssize_t) {}
    PyObject* value(PyObject*) const { return nullptr; }
};
inline bool has_only_names_of(PyObject*, const void*, Py_ssize_t) { return false; }
inline PyObject* combined_dict_of(PyObject*) { return nullptr; }
inline PyObject* value_at(PyObject*, PyObject*, Py_ssize_t) { return nullptr; }
inline Py_ssize_t position_of(PyObject*, PyObject*) { return -1; }
template <class Copy> bool fill(PyObject*, const SharedValues&, Copy) { return false; }
inline bool give_dict(PyObject*, PyObject*) { return false; }
inline bool replace_value(PyObject*, PyObject*, const SharedValues&, Py_ssize_t, PyObject*) { return false; }
inline bool has_text_keys_only(PyObject*) { return false; }
inline PyObject* wrapped_function(PyObject*) { return nullptr; }

} // namespace py::fast::layout
