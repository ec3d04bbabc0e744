#include "object.h"

#include <algorithm>
#include <exception>

namespace py {

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
        PyMem_RawFree(static_cast<void*>(allocated));
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
    PyMem_RawFree(static_cast<void*>(objects_.allocated));
}

void raise_failure(CallSite site)
{
    if (!PyErr_Occurred())
        PyErr_NoMemory();
    throw Raised{site};
}

// Signals first: a collection runs finalisers, and what is raised in one of those is lost.
void do_what_is_due(CallSite site)
{
    if constexpr (fast::is_on)
        check(Py_MakePendingCalls(), site);
    check(PyErr_CheckSignals(), site); // from 3.12 on a collection as well
    if constexpr (fast::is_on)
        fast::do_what_is_left(site);
}

Object Handle::get_remembered(Name name, CallSite site) const
{
    if (PyObject* value = fast::stored_attribute(name.memory(), pointer_)) [[likely]]
        return Object(borrow(value));
    return look_up(name, site);
}

// Apart from the look above, which therefore needs no stack frame.
[[gnu::noinline]] Object Handle::look_up(Name name, CallSite site) const
{
    if constexpr (fast::is_on)
        if (Object value = fast::computed_attribute(name, *this, site))
            return value;
    if (PyObject* value = fast::found_attribute(name.memory(), name.ptr(), pointer_))
        return Object(borrow(value));
    return steal(PyObject_GetAttr(pointer_, name.ptr()), site);
}

void Handle::set(Name name, Handle value, CallSite site) const
{
    fast::Answer done = fast::set_attribute(name.memory(), name.ptr(), pointer_, value.ptr());
    if (done == fast::Answer::no ||
        (done == fast::Answer::unknown && PyObject_SetAttr(pointer_, name.ptr(), value.ptr()) < 0))
        throw Raised{site};
}

Object Handle::item(Handle key, CallSite site) const { return steal(PyObject_GetItem(pointer_, key.ptr()), site); }

Object Handle::item(Py_ssize_t index, CallSite site) const
{
    if (PyList_CheckExact(pointer_) && index >= 0 && index < PyList_GET_SIZE(pointer_)) [[likely]]
        return Object(borrow(PyList_GET_ITEM(pointer_, index)));
    Object key = steal(PyLong_FromSsize_t(index), site);
    return item(key, site);
}

Object Handle::first(CallSite site) const { return item(Py_ssize_t{0}, site); }

void Handle::set_item(Handle key, Handle value, CallSite site) const
{
    check(PyObject_SetItem(pointer_, key.ptr(), value.ptr()), site);
}

void Handle::set_item(Py_ssize_t index, Handle value, CallSite site) const
{
    Object key = steal(PyLong_FromSsize_t(index), site);
    set_item(key, value, site);
}

bool Handle::contains(Handle value, CallSite site) const
{
    int found = PySequence_Contains(pointer_, value.ptr());
    check(found, site);
    return found != 0;
}

bool Handle::truthy(CallSite site) const
{
    int truth = PyObject_IsTrue(pointer_);
    check(truth, site);
    return truth != 0;
}

namespace {

// Not PyObject_RichCompareBool: that one takes identity for equality, which `==` in an `if` does not.
Object compared(Handle a, Handle b, CallSite site)
{
    return steal(PyObject_RichCompare(a.ptr(), b.ptr(), Py_EQ), site);
}

} // namespace

bool Handle::compares_equal(Handle other, CallSite site) const
{
    if (are_compared_by_identity(pointer_, other.pointer_))
        return is(other);
    return compared(*this, other, site).truthy(site);
}

bool Object::compare_objects_and_drop(Handle other, Object* other_temporary, CallSite site)
{
    if (are_compared_by_identity(pointer_, other.ptr())) {
        bool same = is(other);
        drop_with(other_temporary);
        return same;
    }
    Object result = compared(*this, other, site);
    drop_with(other_temporary);
    return std::move(result).truthy(site);
}

bool Handle::greater(Handle other, CallSite site) const
{
    return steal(PyObject_RichCompare(pointer_, other.ptr(), Py_GT), site).truthy(site);
}

} // namespace py
