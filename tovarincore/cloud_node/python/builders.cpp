#include "builders.h"

namespace py {

Object list(Arguments elements, CallSite site)
{
    Object made = steal(PyList_New(static_cast<Py_ssize_t>(elements.size())), site);
    Py_ssize_t index = 0;
    for (const Argument& element : elements)
        PyList_SET_ITEM(made.ptr(), index++, Object(borrow(element.value())).release());
    return made;
}

Object tuple(Arguments elements, CallSite site)
{
    Object made = steal(PyTuple_New(static_cast<Py_ssize_t>(elements.size())), site);
    Py_ssize_t index = 0;
    for (const Argument& element : elements)
        PyTuple_SET_ITEM(made.ptr(), index++, Object(borrow(element.value())).release());
    return made;
}

Object dict(std::initializer_list<Entry> entries, CallSite site)
{
    Object made = steal(PyDict_New(), site);
    for (const Entry& entry : entries)
        check(PyDict_SetItem(made.ptr(), entry.key.value(), entry.value.value()), site);
    return made;
}

Object concat(Arguments parts, CallSite site)
{
    Object joined;
    for (const Argument& part : parts)
        joined = joined ? steal(PyNumber_Add(joined.ptr(), part.value()), site) : Object(borrow(part.value()));
    return joined;
}

Object formatted(Handle text, Handle value, CallSite site)
{
    Object shown = steal(PyObject_Format(value.ptr(), nullptr), site);
    return steal(PyUnicode_Concat(text.ptr(), shown.ptr()), site);
}

Object number(long value, CallSite site) { return steal(PyLong_FromLong(value), site); }

void append(Handle new_list, Handle element, CallSite site)
{
    check(PyList_Append(new_list.ptr(), element.ptr()), site);
}

} // namespace py
