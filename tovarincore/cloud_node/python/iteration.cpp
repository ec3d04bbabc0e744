#include "iteration.h"

namespace py {

bool Each::next_of_iterator(Object& variable)
{
    Object element = adopt(PyIter_Next(source_.ptr()));
    if (!element) {
        if (PyErr_Occurred())
            throw Raised{where_};
        return false;
    }
    variable = std::move(element);
    return true;
}

Each each(Handle iterable, Where where) { return each_from(0, iterable, where); }

Each each_from(Py_ssize_t start, Handle iterable, Where where)
{
    if (PyList_CheckExact(iterable.ptr()))
        return Each(Object(iterable), start, where);
    return Each(steal(PyObject_GetIter(iterable.ptr()), where), -1, where);
}

namespace {

[[noreturn]] void raise_count_error(const char* format, Py_ssize_t expected, Py_ssize_t got, Where where)
{
    PyErr_Format(PyExc_ValueError, format, expected, got);
    throw Raised{where};
}

} // namespace

void unpack_into(Handle sequence, Object* targets, Py_ssize_t count, Where where)
{
    PyObject* source = sequence.ptr();
    if (PyTuple_CheckExact(source) && PyTuple_GET_SIZE(source) == count) {
        for (Py_ssize_t i = 0; i < count; ++i)
            targets[i] = Object(borrow(PyTuple_GET_ITEM(source, i)));
        return;
    }
    if (PyList_CheckExact(source) && PyList_GET_SIZE(source) == count) {
        for (Py_ssize_t i = 0; i < count; ++i)
            targets[i] = Object(borrow(PyList_GET_ITEM(source, i)));
        return;
    }
    Object iterator = adopt(PyObject_GetIter(source));
    if (!iterator) {
        PyTypeObject* type = Py_TYPE(source);
        if (PyErr_ExceptionMatches(PyExc_TypeError) && type->tp_iter == nullptr && !PySequence_Check(source))
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object", type->tp_name);
        throw Raised{where};
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        targets[i] = adopt(PyIter_Next(iterator.ptr()));
        if (targets[i])
            continue;
        if (PyErr_Occurred())
            throw Raised{where};
        raise_count_error("not enough values to unpack (expected %zd, got %zd)", count, i, where);
    }
    Object surplus = adopt(PyIter_Next(iterator.ptr()));
    if (surplus)
        raise_count_error("too many values to unpack (expected %zd)", count, 0, where);
    if (PyErr_Occurred())
        throw Raised{where};
}

void raise_from_generator(const Raised& raised, WhereInFunction here)
{
    ExceptBlock stopped(raised, here);
    Object message = steal(PyUnicode_FromString("generator raised StopIteration"));
    Object error = borrow(PyExc_RuntimeError)({message});
    PyException_SetCause(error.ptr(), Object(stopped.error()).release());
    raise(error, here);
}

} // namespace py
