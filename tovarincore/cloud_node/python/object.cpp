#include "object.h"

#include <array>
#include <exception>
#include <vector>

namespace py {

void NameSlot::intern_all()
{
    for (NameSlot* slot = first_; slot != nullptr; slot = slot->next_)
        if (slot->interned_ == nullptr)
            slot->interned_ = steal(PyUnicode_InternFromString(slot->text_)).release();
}

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
    if (PyObject* value = name.cache().instance_value(pointer_, name.ptr()))
        return Object(borrow(value));
    return steal(PyObject_GetAttr(pointer_, name.ptr()), where);
}

void Handle::set(Name name, Handle value, Where where) const
{
    if (name.cache().sets_instance_value(pointer_, name.ptr()))
        check(PyDict_SetItem(*layout::dict_slot(pointer_), name.ptr(), value.ptr()), where);
    else
        check(PyObject_SetAttr(pointer_, name.ptr(), value.ptr()), where);
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

namespace {

constexpr std::size_t most_arguments = 16; // run_instances, the widest call, takes twelve

// The arguments of one call as the vector call protocol wants them: one free slot in front, values, then the keywords'
// values, with their names in a tuple.
struct VectorCall {
    std::array<PyObject*, most_arguments + 1> values; // only what is used is set
    std::size_t positional = 0;
    Object names;

    VectorCall(Arguments arguments, Where where) // NOLINT(cppcoreguidelines-pro-type-member-init)
    {
        if (arguments.size() + 1 > most_arguments) {
            PyErr_SetString(PyExc_SystemError, "more arguments in a call than the object layer passes on");
            throw Raised{where};
        }
        std::size_t used = 1;
        Py_ssize_t keywords = 0;
        for (const Argument& argument : arguments) {
            values[used++] = argument.value();
            keywords += argument.name() != nullptr;
        }
        positional = arguments.size() - static_cast<std::size_t>(keywords);
        if (keywords == 0)
            return;
        names = steal(PyTuple_New(keywords), where);
        Py_ssize_t next = 0;
        for (const Argument& argument : arguments)
            if (argument.name() != nullptr)
                PyTuple_SET_ITEM(names.ptr(), next++, Object(borrow(argument.name())).release());
    }
};

} // namespace

namespace {

// A class whose instances come from object.__new__ and a Python __init__: what calling the class does is then done
// here, without a tuple and a dictionary of the arguments in between. Null where it has to be the call of the class.
PyObject* python_initialiser(PyObject* callable)
{
    if (!layout::known || !Py_IS_TYPE(callable, &PyType_Type))
        return nullptr;
    auto* type = reinterpret_cast<PyTypeObject*>(callable);
    if (type->tp_new != PyBaseObject_Type.tp_new || PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT) ||
        type->tp_init == PyBaseObject_Type.tp_init)
        return nullptr;
    PyObject* found = _PyType_Lookup(type, "__init__"_s.ptr());
    return found != nullptr && PyFunction_Check(found) ? found : nullptr;
}

// class(...)
Object construct(PyObject* callable, Handle initialiser, VectorCall& prepared, Where where)
{
    auto* type = reinterpret_cast<PyTypeObject*>(callable);
    Object function(initialiser);
    Object made = steal(type->tp_alloc(type, 0), where);
    prepared.values[0] = made.ptr();
    check(Py_EnterRecursiveCall(" while calling a Python object") == 0 ? 0 : -1, where);
    Object result = adopt(
        PyObject_Vectorcall(function.ptr(), prepared.values.data(), prepared.positional + 1, prepared.names.ptr()));
    Py_LeaveRecursiveCall();
    if (!result)
        throw Raised{where};
    if (!result.is_none()) {
        PyErr_Format(PyExc_TypeError, "__init__() should return None, not '%.200s'", Py_TYPE(result.ptr())->tp_name);
        throw Raised{where};
    }
    return made;
}

} // namespace

Object call(Handle function, Arguments arguments, Where where)
{
    VectorCall prepared(arguments, where);
    if (PyObject* initialiser = python_initialiser(function.ptr()))
        return construct(function.ptr(), borrow(initialiser), prepared, where);
    return steal(PyObject_Vectorcall(function.ptr(), prepared.values.data() + 1,
                                     prepared.positional | PY_VECTORCALL_ARGUMENTS_OFFSET, prepared.names.ptr()),
                 where);
}

Object Handle::call(Name method, Arguments arguments, Where where) const
{
    VectorCall prepared(arguments, where);
    prepared.values[0] = pointer_;
    if (PyObject* function = method.cache().method(pointer_, method.ptr()))
        return steal(
            PyObject_Vectorcall(function, prepared.values.data(), prepared.positional + 1, prepared.names.ptr()),
            where);
    return steal(PyObject_VectorcallMethod(method.ptr(), prepared.values.data(),
                                           (prepared.positional + 1) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                           prepared.names.ptr()),
                 where);
}

} // namespace py
