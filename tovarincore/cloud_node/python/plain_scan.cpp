#include "plain_scan.h"

#include "attribute_cache.h"
#include "builders.h"

namespace py {

namespace {

// The plainly stored value; null when it takes the interpreter's lookup to find it.
PyObject* plain_value(PyObject* element, Name name)
{
    AttributeCache& cache = name.cache();
    PyObject* value = cache.instance_value(element, name.ptr());
    if (value == nullptr) [[unlikely]] {
        cache.learn(element, name.ptr());
        value = cache.instance_value(element, name.ptr());
    }
    return value;
}

} // namespace

Py_ssize_t first_candidate(Handle list, Name name, Handle text)
{
    if (!layout::known || !PyList_CheckExact(list.ptr()))
        return 0;
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyObject* value = plain_value(PyList_GET_ITEM(list.ptr(), i), name);
        if (value == nullptr || !are_plain_texts(value, text.ptr()) || is_same_text(value, text.ptr()))
            return i;
    }
    return size;
}

Py_ssize_t first_candidate_like(Handle list, Name name, Handle element)
{
    PyObject* text = layout::known ? plain_value(element.ptr(), name) : nullptr;
    return text == nullptr ? 0 : first_candidate(list, name, borrow(text));
}

Py_ssize_t first_not_false(Handle list, Name name)
{
    if (!layout::known || !PyList_CheckExact(list.ptr()))
        return 0;
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    for (Py_ssize_t i = 0; i < size; ++i)
        if (plain_value(PyList_GET_ITEM(list.ptr(), i), name) != Py_False)
            return i;
    return size;
}

Candidates::Candidates(Handle iterable, Name hop, Name name, Handle text, Handle others, Where where)
    : hop_(hop), name_(name), text_(text), others_(others), where_(where)
{
    if (PyList_CheckExact(iterable.ptr()))
        list_ = Object(iterable);
    else
        iterator_ = steal(PyObject_GetIter(iterable.ptr()), where);
}

Py_ssize_t Candidates::next_candidate() const
{
    Py_ssize_t size = PyList_GET_SIZE(list_.ptr());
    for (Py_ssize_t i = index_; layout::known && i < size; ++i) {
        PyObject* between = plain_value(PyList_GET_ITEM(list_.ptr(), i), hop_);
        PyObject* value = between == nullptr ? nullptr : plain_value(between, name_);
        if (value == nullptr || !are_plain_texts(value, text_.ptr()) || is_same_text(value, text_.ptr()))
            return i;
    }
    return layout::known ? size : index_;
}

void Candidates::put_aside(Py_ssize_t end)
{
    Py_ssize_t count = PyList_GET_SIZE(others_.ptr());
    if (end > index_) {
        Object passed = steal(PyList_GetSlice(list_.ptr(), index_, end), where_);
        check(PyList_SetSlice(others_.ptr(), count, count, passed.ptr()), where_);
    }
    index_ = end;
}

void Candidates::put_rest_aside()
{
    if (list_)
        put_aside(PyList_GET_SIZE(list_.ptr()));
    else
        while (Object element = next())
            append(others_, element, where_);
}

Object Candidates::next()
{
    if (list_) {
        put_aside(next_candidate());
        if (index_ >= PyList_GET_SIZE(list_.ptr()))
            return {};
        return Object(borrow(PyList_GET_ITEM(list_.ptr(), index_++)));
    }
    Object element = adopt(PyIter_Next(iterator_.ptr()));
    if (!element && PyErr_Occurred())
        throw Raised{where_};
    return element;
}

Candidates::Position& Candidates::Position::operator++()
{
    current_ = candidates_->next();
    return *this;
}

} // namespace py
