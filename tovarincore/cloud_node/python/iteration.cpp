#include "iteration.h"

namespace py {

Each::Each(Handle iterable, const Wanted* wanted, Object* passed_over, CallSite site)
    : source_(PyList_CheckExact(iterable.ptr()) ? Object(iterable) : steal(PyObject_GetIter(iterable.ptr()), site)),
      passed_over_(passed_over), site_(site)
{
    if (!PyList_CheckExact(iterable.ptr()))
        return;
    index_ = 0;
    // A text of a class with a comparison of its own has to be asked about each element.
    if (fast::is_on && wanted != nullptr &&
        (!wanted->text || are_plain_texts(wanted->text.ptr(), wanted->text.ptr()))) {
        wanted_ = *wanted;
        text_ = Object(wanted->text); // held as long as the loop lasts
    }
}

bool Each::next_in_another_way(Object& variable)
{
    if (index_ < 0)
        return next_of_iterator(variable);
    if (wanted_)
        pass_over(*wanted_, variable);
    return next_of_list(variable);
}

bool Each::next_of_iterator(Object& variable)
{
    Object element = adopt(PyIter_Next(source_.ptr()));
    if (!element) {
        if (PyErr_Occurred())
            throw Raised{site_};
        between_turns_.end(site_);
        return false;
    }
    variable = std::move(element);
    return true;
}

namespace {

// Without a collection, whose finalisers could shorten the list while its slice is being made.
Object slice_of(Handle list, Py_ssize_t begin, Py_ssize_t end, CallSite site)
{
    NoCollection undisturbed;
    return steal(PyList_GetSlice(list.ptr(), begin, end), site);
}

// An empty list that nobody else knows gives way to the one with the elements.
void extend(Object& list, Object elements, CallSite site)
{
    Py_ssize_t end = PyList_GET_SIZE(list.ptr());
    if (end == 0 && Py_REFCNT(list.ptr()) == 1)
        list = std::move(elements);
    else
        check(PyList_SetSlice(list.ptr(), end, end, elements.ptr()), site);
}

} // namespace

void Each::pass_over(const Wanted& wanted, Object& variable)
{
    Py_ssize_t begin = std::exchange(index_, fast::first_candidate(source_.ptr(), index_, wanted));
    if (index_ == begin)
        return;
    Object last(borrow(PyList_GET_ITEM(source_.ptr(), index_ - 1)));
    if (passed_over_ != nullptr)
        extend(*passed_over_, slice_of(source_, begin, index_, site_), site_);
    checkpoint(site_);
    variable = std::move(last);
}

Py_ssize_t first_like(Handle owner, Name list_name, Name attribute, Handle like, CallSite site)
{
    auto list_now = [&] { return fast::stored_attribute(list_name.memory(), owner.ptr()); };
    PyObject* stored = list_now();
    if (stored == nullptr || !PyList_CheckExact(stored))
        return 0;
    Object list(borrow(stored));
    Py_ssize_t position = fast::first_like(list.ptr(), attribute, like.ptr());
    if (list_now() != list.ptr()) // a collection meanwhile has run a finaliser
        position = 0;
    checkpoint(site);
    return position;
}

namespace {

[[noreturn]] void raise_count_error(const char* format, Py_ssize_t expected, Py_ssize_t got, CallSite site)
{
    PyErr_Format(PyExc_ValueError, format, expected, got);
    throw Raised{site};
}

} // namespace

void unpack_into(Handle sequence, Object* targets, Py_ssize_t count, CallSite site)
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
        throw Raised{site};
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        targets[i] = adopt(PyIter_Next(iterator.ptr()));
        if (targets[i])
            continue;
        if (PyErr_Occurred())
            throw Raised{site};
        raise_count_error("not enough values to unpack (expected %zd, got %zd)", count, i, site);
    }
    Object surplus = adopt(PyIter_Next(iterator.ptr()));
    if (surplus)
        raise_count_error("too many values to unpack (expected %zd)", count, 0, site);
    if (PyErr_Occurred())
        throw Raised{site};
}

void raise_from_generator(const Raised& raised, CallSiteInFunction here)
{
    ExceptBlock stopped(raised, here);
    Object message = steal(PyUnicode_FromString("generator raised StopIteration"));
    Object error = borrow(PyExc_RuntimeError)({message});
    PyException_SetCause(error.ptr(), Object(stopped.error()).release());
    raise(error, here);
}

} // namespace py
