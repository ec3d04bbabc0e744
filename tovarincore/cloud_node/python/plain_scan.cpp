#include "plain_scan.h"

#include "attribute_cache.h"
#include "builders.h"

namespace py {

namespace {

// Reads one attribute of one object after another.
class PlainReader {
public:
    explicit PlainReader(Name name) : name_(name) {}

    // The plainly stored value; null when it takes the interpreter's lookup to find it.
    PyObject* value(PyObject* element)
    {
        PyObject* found = slot_.value(element);
        if (found == nullptr) [[unlikely]] {
            slot_ = name_.cache().slot(element, name_.ptr());
            found = slot_.value(element);
        }
        return found;
    }

private:
    Name name_;
    PlainSlot slot_;
};

// Certain to be unequal, without a call of anybody's comparison.
bool plainly_differs(PyObject* value, PyObject* text)
{
    return value != nullptr && are_plain_texts(value, text) && !is_same_text(value, text);
}

} // namespace

Py_ssize_t first_candidate(Handle list, Name name, Handle text)
{
    if (!layout::known || !PyList_CheckExact(list.ptr()))
        return 0;
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    PlainReader reader(name);
    Py_ssize_t i = 0;
    while (i < size && plainly_differs(reader.value(PyList_GET_ITEM(list.ptr(), i)), text.ptr()))
        ++i;
    return i;
}

Py_ssize_t first_candidate_like(Handle list, Name name, Handle element)
{
    PyObject* text = layout::known ? PlainReader(name).value(element.ptr()) : nullptr;
    return text == nullptr ? 0 : first_candidate(list, name, borrow(text));
}

Py_ssize_t first_not_false(Handle list, Name name)
{
    if (!layout::known || !PyList_CheckExact(list.ptr()))
        return 0;
    Py_ssize_t size = PyList_GET_SIZE(list.ptr());
    PlainReader reader(name);
    Py_ssize_t i = 0;
    while (i < size && reader.value(PyList_GET_ITEM(list.ptr(), i)) == Py_False)
        ++i;
    return i;
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
    PlainReader hop(hop_), reader(name_);
    Py_ssize_t i = index_;
    for (; layout::known && i < size; ++i) {
        PyObject* between = hop.value(PyList_GET_ITEM(list_.ptr(), i));
        if (between == nullptr || !plainly_differs(reader.value(between), text_.ptr()))
            break;
    }
    return i;
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
