// Calls, by the interpreter's vector call protocol.
#include "function.h"

namespace py {

Object keyword_names(const Argument* keywords, std::size_t count, CallSite site)
{
    Object names = steal(PyTuple_New(static_cast<Py_ssize_t>(count)), site);
    for (std::size_t i = 0; i < count; ++i)
        PyTuple_SET_ITEM(names.ptr(), static_cast<Py_ssize_t>(i),
                         Object(borrow(keywords[i].keyword()->ptr())).release());
    return names;
}

Object call_prepared(Handle function, PyObject** values, std::size_t positional, Handle names, CallSite site)
{
    if constexpr (fast::is_on)
        if (PyObject* initialiser = fast::initialiser(function.ptr()))
            return fast::construct(function, borrow(initialiser), values, positional, names.ptr(), site);
    return steal(
        PyObject_Vectorcall(function.ptr(), values + 1, positional | PY_VECTORCALL_ARGUMENTS_OFFSET, names.ptr()),
        site);
}

MethodOfObject Handle::method(Name name, CallSite site) const
{
    if (PyObject* function = fast::known_method(name.memory(), pointer_)) [[likely]]
        return {Object(borrow(function)), *this};
    return look_up_method(name, site);
}

// Apart from method(), which so needs no stack of its own.
[[gnu::noinline]] MethodOfObject Handle::look_up_method(Name name, CallSite site) const
{
    if (PyObject* function = fast::known_static_method(name.memory(), pointer_))
        return {Object(borrow(function)), Handle()};
    if (PyObject* function = fast::found_method(name.memory(), name.ptr(), pointer_))
        return {Object(borrow(function)), *this};
    PyObject* found = nullptr;
    bool takes_self = find_method(pointer_, name.ptr(), &found);
    return {steal(found, site), takes_self ? *this : Handle()};
}

Object MethodOfObject::call(PyObject** values, std::size_t positional, Handle names, CallSite site) const
{
    if (!self_)
        return call_prepared(function_, values, positional, names, site);
    values[0] = self_.ptr();
    auto call = is_own_function(function_.ptr()) ? call_own_function : PyObject_Vectorcall;
    return steal(call(function_.ptr(), values, positional + 1, names.ptr()), site);
}

} // namespace py
