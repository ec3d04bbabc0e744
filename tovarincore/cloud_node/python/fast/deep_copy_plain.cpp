#include "deep_copy_plain.h"

#include "deep_copy_enumerations.h"

#include <cstring>

namespace py::fast {

PointerMemo::~PointerMemo()
{
    for (std::size_t i = 0, size = std::size_t{1} << bits_; used_ > 0 && i < size; ++i)
        if (table_[i].original != nullptr) {
            Py_DECREF(table_[i].original);
            Py_DECREF(table_[i].copy);
            --used_;
        }
    if (table_ != inline_)
        PyMem_Free(table_);
}

void PointerMemo::empty_copies()
{
    for (std::size_t i = 0, size = std::size_t{1} << bits_; i < size; ++i)
        if (PyObject* copy = table_[i].copy; copy != nullptr && copy != table_[i].original)
            if (inquiry clear = Py_TYPE(copy)->tp_clear; clear != nullptr)
                clear(copy);
}

PointerMemo::Entry* PointerMemo::find(PyObject* original) const
{
    std::size_t mask = (std::size_t{1} << bits_) - 1;
    std::size_t i = (reinterpret_cast<std::uintptr_t>(original) * 0x9E3779B97F4A7C15u) >> (64 - bits_);
    while (table_[i].original != nullptr && table_[i].original != original)
        i = (i + 1) & mask;
    return &table_[i];
}

bool PointerMemo::add(Entry* free_entry, PyObject* original, PyObject* copy)
{
    if ((used_ + 1) * 3 > (std::size_t{2} << bits_)) {
        if (!grow())
            return false;
        free_entry = find(original);
    }
    Py_INCREF(original);
    Py_INCREF(copy);
    *free_entry = {original, copy};
    ++used_;
    return true;
}

bool PointerMemo::grow()
{
    std::size_t old_size = std::size_t{1} << bits_;
    unsigned more = bits_ < 12 ? 2 : 1;
    auto* table = static_cast<Entry*>(PyMem_Calloc(old_size << more, sizeof(Entry)));
    if (table == nullptr) {
        PyErr_NoMemory();
        return false;
    }
    Entry* old = std::exchange(table_, table);
    bits_ += more;
    for (std::size_t i = 0; i < old_size; ++i)
        if (old[i].original != nullptr)
            *find(old[i].original) = old[i];
    if (old != inline_)
        PyMem_Free(old);
    return true;
}

PyObject* PlainCopy::copy_all(PyObject* original) noexcept
{
    PyObject* made = copy(original);
    if (made == nullptr)
        memo_.empty_copies();
    return made;
}

// Every container costs one level of the recursion limit, as every call does.
PyObject* PlainCopy::copy(PyObject* original) noexcept
{
    if (is_plain_value(Py_TYPE(original))) {
        Py_INCREF(original);
        return original;
    }
    if (depth_ == deepest || !level_.enter())
        return nullptr;
    ++depth_;
    PyObject* made = copy_container(original);
    --depth_;
    level_.leave();
    return made;
}

PyObject* PlainCopy::copy_container(PyObject* original)
{
    PointerMemo::Entry* entry = memo_.find(original);
    if (entry->original != nullptr) {
        Py_INCREF(entry->copy);
        return entry->copy;
    }
    CopyPlan& plan = copy_plan(Py_TYPE(original));
    switch (plan.kind) {
    case CopyKind::list:
        return copy_list(original, entry);
    case CopyKind::object:
        return has_no_slots(plan) ? copy_object(original, entry, plan) : nullptr;
    case CopyKind::tuple:
        return copy_tuple(original);
    case CopyKind::dict:
        return copy_dict(original, entry);
    case CopyKind::enumeration:
        if (!is_own_copy(original, plan) || !memo_.add(entry, original, original))
            return nullptr;
        [[fallthrough]];
    case CopyKind::atomic:
        Py_INCREF(original);
        return original;
    case CopyKind::unusual:
        break;
    }
    return nullptr;
}

PyObject* PlainCopy::copy_list(PyObject* original, PointerMemo::Entry* entry)
{
    Py_ssize_t size = PyList_GET_SIZE(original);
    PyObject* made = PyList_New(size);
    bool going_on = made != nullptr && memo_.add(entry, original, made);
    for (Py_ssize_t i = 0; going_on && i < size; ++i) {
        PyObject* element = copy(PyList_GET_ITEM(original, i));
        PyList_SET_ITEM(made, i, element); // empty places are seen by nobody
        going_on = element != nullptr;
    }
    if (!going_on)
        Py_CLEAR(made);
    return made;
}

PyObject* PlainCopy::copy_tuple(PyObject* original)
{
    Py_ssize_t size = PyTuple_GET_SIZE(original);
    PyObject* made = PyTuple_New(size);
    bool changed = false;
    for (Py_ssize_t i = 0; made != nullptr && i < size; ++i) {
        PyObject* element = copy(PyTuple_GET_ITEM(original, i));
        PyTuple_SET_ITEM(made, i, element);
        changed = changed || element != PyTuple_GET_ITEM(original, i);
        if (element == nullptr)
            Py_CLEAR(made);
    }
    if (made == nullptr)
        return nullptr;
    // Looked up only now: a container inside may hold the tuple, and has then copied it already.
    PointerMemo::Entry* entry = memo_.find(original);
    PyObject* known = entry->original != nullptr ? entry->copy : original;
    if (entry->original != nullptr || !changed) {
        Py_INCREF(known);
        Py_DECREF(made);
        return known;
    }
    if (!memo_.add(entry, original, made))
        Py_CLEAR(made);
    return made;
}

// Only keys that are found without running Python code.
PyObject* PlainCopy::copy_dict(PyObject* original, PointerMemo::Entry* entry)
{
    PyObject* made = PyDict_New();
    bool going_on = made != nullptr && memo_.add(entry, original, made);
    PyObject *key, *value;
    for (Py_ssize_t position = 0; going_on && PyDict_Next(original, &position, &key, &value) != 0;) {
        PyObject* copied = is_plain_value(Py_TYPE(key)) ? copy(value) : nullptr;
        going_on = copied != nullptr && PyDict_SetItem(made, key, copied) == 0;
        Py_XDECREF(copied);
    }
    if (!going_on)
        Py_CLEAR(made);
    return made;
}

PyObject* PlainCopy::copy_object(PyObject* original, PointerMemo::Entry* entry, CopyPlan& plan)
{
    PyObject* made = layout::new_instance(Py_TYPE(original));
    bool done = made != nullptr && memo_.add(entry, original, made) && copy_attributes(original, made, plan);
    if (!done)
        Py_CLEAR(made);
    return made;
}

// A dictionary that only its object refers to is met nowhere else, so it needs no entry in the memo.
bool PlainCopy::copy_attributes(PyObject* original, PyObject* made, CopyPlan& plan)
{
    PyObject* dict = layout::dict_of(original);
    bool is_met_elsewhere = dict != nullptr && (!PyDict_CheckExact(dict) || Py_REFCNT(dict) > 1);
    if (layout::SharedValues shared = layout::shared_values_of(original); shared && !is_met_elsewhere)
        return has_plain_names(shared, plan) && copy_shared_values(shared, made);
    if (dict == nullptr)
        return true;
    if (!PyDict_CheckExact(dict) || !has_plain_names(dict))
        return false;
    PyObject* attributes = is_met_elsewhere ? copy_met_dict(dict) : PyDict_Copy(dict);
    if (attributes == nullptr)
        return false;
    if (!is_met_elsewhere && !copy_values(attributes)) {
        Py_DECREF(attributes);
        return false;
    }
    return layout::give_dict(made, attributes);
}

// Somebody else refers to it: it may be met again, and its copy is not the one that the copied object gets.
PyObject* PlainCopy::copy_met_dict(PyObject* dict)
{
    PyObject* state = copy(dict);
    PyObject* attributes = state == nullptr ? nullptr : PyDict_Copy(state);
    Py_XDECREF(state);
    return attributes;
}

bool PlainCopy::copy_shared_values(const layout::SharedValues& shared, PyObject* made)
{
    return layout::fill(made, shared, [this](PyObject* value) {
        if (!is_plain_value(Py_TYPE(value)))
            return copy(value);
        Py_INCREF(value);
        return value;
    });
}

bool PlainCopy::copy_values(PyObject* attributes)
{
    PyObject *name, *value;
    for (Py_ssize_t position = 0; PyDict_Next(attributes, &position, &name, &value) != 0;) {
        if (is_plain_value(Py_TYPE(value)))
            continue;
        PyObject* copied = copy(value);
        bool done = copied != nullptr && (copied == value || PyDict_SetItem(attributes, name, copied) == 0);
        Py_XDECREF(copied);
        if (!done)
            return false;
    }
    return true;
}

} // namespace py::fast
