#include "object.h"

#include "quiet_lookup.h"

#include <algorithm>
#include <exception>
#include <new>

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

thread_local constinit ParkedObjects parked_by_this_thread;

// False where there is no room and no memory for more.
bool ParkedObjects::add(PyObject* pointer)
{
    if (count == size) {
        auto* larger = static_cast<PyObject**>(PyMem_RawMalloc(2 * size * sizeof(PyObject*)));
        if (larger == nullptr)
            return false;
        std::copy_n(begin(), count, larger);
        PyMem_RawFree(allocated);
        allocated = larger;
        size *= 2;
    }
    begin()[count++] = pointer;
    return true;
}

void drop_last_reference(PyObject* pointer)
{
    // Without memory to keep it, it is dropped here: then only a thread that is ended inside its finaliser is in
    // danger.
    if (std::uncaught_exceptions() == 0 || !parked_by_this_thread.add(pointer))
        Py_DECREF(pointer);
}

Parked::Parked() : objects_(std::exchange(parked_by_this_thread, {})) {}

Parked::~Parked() noexcept(false)
{
    for (std::size_t i = 0; i < objects_.count && !thread_is_ending(); ++i)
        drop_last_reference(objects_.begin()[i]); // parks it again, should another error be on its way
    PyMem_RawFree(objects_.allocated);
}

Object Handle::get(Name name, Where where) const
{
    if (PyObject* value = name.caches().attribute.known_value(pointer_)) [[likely]]
        return Object(borrow(value));
    return look_up(name, where);
}

PyObject* module_attribute(PyObject* object, PyObject* name)
{
    if (!PyModule_CheckExact(object) || !has_text_keys_only(PyModule_GetDict(object)) ||
        _PyType_Lookup(&PyModule_Type, name) != nullptr) // a class that no program can change
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
        if (!name.caches().attribute.set_known_value(pointer_, name.ptr(), value.ptr()))
            throw Raised{where};
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

Object Handle::first(Where where) const { return item(Py_ssize_t{0}, where); }

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
