#include "builders.h"

namespace py {

Object list(Arguments elements, Where where)
{
    Object made = steal(PyList_New(static_cast<Py_ssize_t>(elements.size())), where);
    Py_ssize_t index = 0;
    for (const Argument& element : elements)
        PyList_SET_ITEM(made.ptr(), index++, Object(borrow(element.value())).release());
    return made;
}

Object tuple(Arguments elements, Where where)
{
    Object made = steal(PyTuple_New(static_cast<Py_ssize_t>(elements.size())), where);
    Py_ssize_t index = 0;
    for (const Argument& element : elements)
        PyTuple_SET_ITEM(made.ptr(), index++, Object(borrow(element.value())).release());
    return made;
}

Object dict(std::initializer_list<Entry> entries, Where where)
{
    Object made = steal(PyDict_New(), where);
    for (const Entry& entry : entries)
        check(PyDict_SetItem(made.ptr(), entry.key.value(), entry.value.value()), where);
    return made;
}

Object concat(Arguments parts, Where where)
{
    Object joined;
    for (const Argument& part : parts)
        joined = joined ? steal(PyNumber_Add(joined.ptr(), part.value()), where) : Object(borrow(part.value()));
    return joined;
}

Object formatted(Handle text, Handle value, Where where)
{
    Object shown = steal(PyObject_Format(value.ptr(), nullptr), where);
    return steal(PyUnicode_Concat(text.ptr(), shown.ptr()), where);
}

Object number(long value, Where where) { return steal(PyLong_FromLong(value), where); }

void append(Handle new_list, Handle element, Where where)
{
    check(PyList_Append(new_list.ptr(), element.ptr()), where);
}

} // namespace py
