#include "object.h"

#include "membership.h"

#include <exception>
#include <new>
#include <vector>

namespace py {

NameCaches* NameSlot::own_caches() const
{
    if (caches_ != &nothing_known)
        return caches_;
    auto* made = new (std::nothrow) NameCaches{}; // kept for the life of the process, as the string is
    if (made != nullptr)
        caches_ = made;
    return made;
}

void NameSlot::intern() const { interned_ = steal(PyUnicode_InternFromString(text_)).release(); }

namespace {
thread_local std::vector<PyObject*> parked;
}

void drop_last_reference(PyObject* pointer)
{
    if (std::uncaught_exceptions() > 0)
        parked.push_back(pointer);
    else
        Py_DECREF(pointer);
}

void drop_parked()
{
    while (!parked.empty()) {
        PyObject* pointer = parked.back();
        parked.pop_back();
        Py_DECREF(pointer);
    }
}

bool Raised::matches(Handle error_class) const { return PyErr_ExceptionMatches(error_class.ptr()) != 0; }

Object Handle::get(Name name, Where where) const
{
    if (PyObject* value = name.caches().attribute.known_value(pointer_)) [[likely]]
        return Object(borrow(value));
    return look_up(name, where);
}

PyObject* module_attribute(PyObject* object, PyObject* name)
{
    if (!PyModule_CheckExact(object) || !has_text_keys_only(PyModule_GetDict(object)) ||
        _PyType_Lookup(&PyModule_Type, name) != nullptr)
        return nullptr;
    return PyDict_GetItemWithError(PyModule_GetDict(object), name);
}

// Apart from get(), which so needs no stack of its own.
[[gnu::noinline]] Object Handle::look_up(Name name, Where where) const
{
    if (PyType_Check(pointer_)) {
        if (PyObject* value = name.caches().class_attribute.known_value(pointer_))
            return Object(borrow(value));
        if (NameCaches* caches = name.caches_to_fill())
            caches->class_attribute.consider(pointer_, name.ptr());
    } else if (PyObject* value = module_attribute(pointer_, name.ptr())) {
        return Object(borrow(value));
    } else if (NameCaches* caches = name.caches_to_fill()) {
        caches->attribute.consider(pointer_, name.ptr());
    }
    return steal(PyObject_GetAttr(pointer_, name.ptr()), where);
}

void Handle::set(Name name, Handle value, Where where) const
{
    if (name.caches().attribute.sets_known_value(pointer_)) {
        check(PyDict_SetItem(*layout::dict_slot(pointer_), name.ptr(), value.ptr()), where);
    } else {
        if (NameCaches* caches = name.caches_to_fill())
            caches->attribute.consider(pointer_, name.ptr());
        check(PyObject_SetAttr(pointer_, name.ptr(), value.ptr()), where);
    }
}

Object Handle::item(Handle key, Where where) const
{
    if (PyDict_CheckExact(pointer_))
        if (PyObject* found = PyDict_GetItemWithError(pointer_, key.ptr()))
            return Object(borrow(found));
    return item_or_error(key, where);
}

// What is left: other containers, missing keys, and keys that cannot be hashed or compared.
Object Handle::item_or_error(Handle key, Where where) const
{
    if (PyErr_Occurred())
        throw Raised{where};
    return steal(PyObject_GetItem(pointer_, key.ptr()), where);
}

Object Handle::item(Py_ssize_t index, Where where) const
{
    if (PyList_CheckExact(pointer_) && index >= 0 && index < PyList_GET_SIZE(pointer_))
        return Object(borrow(PyList_GET_ITEM(pointer_, index)));
    Object key = steal(PyLong_FromSsize_t(index), where);
    return item(key, where);
}

void Handle::set_item(Handle key, Handle value, Where where) const
{
    check(PyObject_SetItem(pointer_, key.ptr(), value.ptr()), where);
}

void Handle::set_item(Py_ssize_t index, Handle value, Where where) const
{
    Object key = steal(PyLong_FromSsize_t(index), where);
    set_item(key, value, where);
}

bool Handle::contains(Handle value, Where where) const
{
    int found = PyDict_CheckExact(pointer_) ? PyDict_Contains(pointer_, value.ptr())
                                            : PySequence_Contains(pointer_, value.ptr());
    check(found, where);
    return found != 0;
}

bool Handle::is_true(Where where) const
{
    int truth = PyObject_IsTrue(pointer_);
    check(truth, where);
    return truth != 0;
}

// Not PyObject_RichCompareBool: that one takes identity for equality, which `==` in an `if` does not.
bool Handle::compares_equal(Handle other, Where where) const
{
    return steal(PyObject_RichCompare(pointer_, other.ptr(), Py_EQ), where).truthy(where);
}

bool Handle::greater(Handle other, Where where) const
{
    return steal(PyObject_RichCompare(pointer_, other.ptr(), Py_GT), where).truthy(where);
}

} // namespace py
